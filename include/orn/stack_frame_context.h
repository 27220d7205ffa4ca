// One stack frame, as the values of two registers.
#ifndef ORN_STACK_FRAME_CONTEXT_H
#define ORN_STACK_FRAME_CONTEXT_H

#include "orn/object.h"

namespace ORN_3_30 {

/// The caller's stack and frame pointers.
class IStackFrameContext : public ISymMgrObject {
public:
    /// Index 0 sets the stack pointer, 1 the frame pointer; others are ignored.
    virtual void setRegister(int index, unsigned long long value) = 0;
    /// The value; 0 for other indices.
    virtual unsigned long long getRegister(int index) = 0;

protected:
    ~IStackFrameContext() = default;
};

} // namespace ORN_3_30

#endif
