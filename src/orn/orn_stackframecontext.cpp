// The frame that clients fill in and hand to the query for stack variables. Which processor's registers the
// two are does not matter here.

#include "orn_stackframecontext.h"

#include "orn_log.h"

namespace ORN_3_30 {

IStackFrameContext* IStackFrameContext::create() try {
    auto* frame = new StackFrameContext;
    frame->addRef();
    return frame;
} catch (const std::bad_alloc&) {
    ORN_LOG_ERROR("Out of memory");
    return nullptr;
}

void StackFrameContext::setRegister(int index, unsigned long long value) {
    if (index == register_StackPointer)
        m_stackPointer = value;
    else if (index == register_FramePointer)
        m_framePointer = value;
}

unsigned long long StackFrameContext::getRegister(int index) {
    switch (index) {
    case register_StackPointer:
        return m_stackPointer;
    case register_FramePointer:
        return m_framePointer;
    default:
        return 0;
    }
}

} // namespace ORN_3_30
