#pragma once

#include <QBuffer>

#include <cstddef>
#include <cstdint>

// Shared by the fuzz targets.
namespace FuzzSupport {

// Drops the library's log messages (thousands per second under the fuzzer) unless CLIPWARD_FUZZ_LOG is
// set in the environment, in which case they go to stderr as usual.
void quietLog();

// A broken promise of the code under test: prints what was broken and aborts, which libFuzzer records as
// a crash with the input that caused it.
[[noreturn]] void fail(const char* what);

// An in-memory file: unlike a plain QBuffer, which fills the gap with zeros when a writable buffer is
// sought past its end, a seek past the end only moves the position, as on a file; reads there find nothing.
class FileLikeBuffer : public QBuffer
{
public:
    using QBuffer::QBuffer;
    bool seek(qint64 pos) override { return QIODevice::seek(pos); }
};

// Reads the input front to back; past its end every value is 0.
class InputReader
{
public:
    InputReader(const uint8_t* data, size_t size)
        : m_data(data)
        , m_size(size)
    {
    }

    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    uint64_t u64();
    // The next n bytes, zero-padded past the end of the input.
    void bytes(void* out, size_t n);
    const uint8_t* rest() const { return m_data + m_pos; }
    size_t restSize() const { return m_size - m_pos; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_pos = 0;
};

} // namespace FuzzSupport
