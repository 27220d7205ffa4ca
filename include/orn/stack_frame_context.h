// One stack frame, as the values of two registers.
#ifndef ORN_STACK_FRAME_CONTEXT_H
#define ORN_STACK_FRAME_CONTEXT_H

#include "orn/export.h"
#include "orn/object.h"

namespace ORN_3_30 {

/// The caller's stack and frame pointers. A value without locks: one thread at a time.
class IStackFrameContext : public ISymMgrObject {
public:
    /// Index 0 sets the stack pointer, 1 the frame pointer; others are ignored.
    virtual void setRegister(int index, unsigned long long value) = 0;
    /// The value; 0 for other indices.
    virtual unsigned long long getRegister(int index) = 0;

    /// A new frame, both registers 0. The one reference that it has belongs to the caller, who releases it,
    /// whatever counted pointers hold the object beside. Null where there is no memory left.
    ORN_API static IStackFrameContext* create();

protected:
    ~IStackFrameContext() = default;
};

} // namespace ORN_3_30

#endif
