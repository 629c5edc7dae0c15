#include "FuzzSupport.h"

#include <QtGlobal>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace FuzzSupport {

namespace {
void dropMessage(QtMsgType, const QMessageLogContext&, const QString&)
{
}
} // namespace

void quietLog()
{
    if (!std::getenv("CLIPWARD_FUZZ_LOG"))
        qInstallMessageHandler(dropMessage);
}

void fail(const char* what)
{
    std::fprintf(stderr, "==clipward-fuzz== broken promise: %s\n", what);
    std::fflush(stderr);
    std::abort();
}

uint8_t InputReader::u8()
{
    uint8_t v = 0;
    bytes(&v, 1);
    return v;
}

// Multi-byte values are little-endian, like the recorder's own records.
uint16_t InputReader::u16()
{
    return uint16_t(u8() | (uint16_t(u8()) << 8));
}

uint32_t InputReader::u32()
{
    const uint32_t low = u16();
    return low | (uint32_t(u16()) << 16);
}

uint64_t InputReader::u64()
{
    const uint64_t low = u32();
    return low | (uint64_t(u32()) << 32);
}

void InputReader::bytes(void* out, size_t n)
{
    const size_t available = m_pos < m_size ? m_size - m_pos : 0;
    const size_t taken = n < available ? n : available;
    if (taken)
        std::memcpy(out, m_data + m_pos, taken);
    std::memset(static_cast<char*>(out) + taken, 0, n - taken);
    m_pos += taken;
}

} // namespace FuzzSupport
