// Block of bytes from malloc.
#ifndef ORN_BUFFER_IMPL_H
#define ORN_BUFFER_IMPL_H

#include "orn/buffer.h"

namespace ORN_3_30 {

/// A block that was just allocated and is not cleared. If the memory is refused, data() is null and size() 0,
/// and nothing else reports it: test data().
class ByteBuffer : public SymMgrObject<IBuffer> {
public:
    explicit ByteBuffer(unsigned long long size);
    ~ByteBuffer() override;

    unsigned long long size() override { return m_size; }
    unsigned char* data() override { return m_data; }

private:
    unsigned char* m_data;
    unsigned long long m_size;
};

} // namespace ORN_3_30

#endif
