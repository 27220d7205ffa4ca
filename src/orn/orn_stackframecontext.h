// The one implementation of a stack frame.
#ifndef ORN_STACKFRAMECONTEXT_H
#define ORN_STACKFRAMECONTEXT_H

#include "orn/stack_frame_context.h"

namespace ORN_3_30 {

/// Two registers of a stopped thread.
class StackFrameContext : public SymMgrObject<IStackFrameContext> {
public:
    /// Places of the registers in the interface.
    enum register_t : int { register_StackPointer = 0, register_FramePointer = 1 };

    StackFrameContext() : SymMgrObject<IStackFrameContext>(nullptr) {}

    void setRegister(int index, unsigned long long value) override;
    unsigned long long getRegister(int index) override;

private:
    unsigned long long m_stackPointer = 0;
    unsigned long long m_framePointer = 0;
};

} // namespace ORN_3_30

#endif
