// ByteBuffer: what every raw read of a module hands out. malloc and not new, because a refused size, which a
// damaged file may ask for, is an answer here and no exception.

#include "orn_buffer.h"

#include "orn_log.h"

#include <cstdlib>

namespace ORN_3_30 {

ByteBuffer::ByteBuffer(unsigned long long size) : SymMgrObject<IBuffer>(nullptr), m_data(nullptr), m_size(0) {
    // malloc(0) may give null, which would read as a refusal.
    m_data = static_cast<unsigned char*>(std::malloc(size ? size : 1));
    if (m_data)
        m_size = size;
}

ByteBuffer::~ByteBuffer() {
    std::free(m_data);
}

} // namespace ORN_3_30
