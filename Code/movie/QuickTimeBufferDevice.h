#pragma once

#include <QByteArray>
#include <QIODevice>

namespace Tern {

// Write-only device that gathers the movie index into 128 KiB blocks before they reach the file. The
// first failed write to the target latches the device (fill -1): that error is logged once and every
// later write is dropped, so the caller learns of the failure only from fill() at the end.
class QuickTimeBufferDevice : public QIODevice
{
    Q_OBJECT

public:
    static constexpr int s_bufferSize = 131072;

    explicit QuickTimeBufferDevice(QIODevice* target, QObject* parent = nullptr);
    ~QuickTimeBufferDevice() override;

    // Writes the bytes held so far to the target.
    void flushBuffer();

    // Position in the target, counting the bytes still held here.
    qint64 pos() const override;

    int fill() const { return m_fill; }
    int bufferSize() const { return m_bufferSize; }
    bool errorLatched() const { return m_fill < 0; }

    // For the table writers, which fill the buffer in place after a flush: the buffer's own storage,
    // detached from any sharer, and the step that counts what they put there.
    char* bufferData();
    void addToFill(int bytes);

    // For tables written out of file order: writes len bytes at `position` of the target, ahead of what
    // the stream has written, and returns to where the stream is; later the stream steps over them with
    // skipWritten. Bytes held here are written first. Failures latch the error like any other write.
    // No write lands past the target's end: a target too short is first grown by zeros at its end, to
    // the stream's final length when that is known, which the stream then writes over in order. (Some
    // file systems refuse or lose writes past the end, and not all can grow a file by truncation.)
    bool writeAhead(qint64 position, const char* data, int len);
    void setFinalLength(qint64 length) { m_finalLength = length; }
    bool skipWritten(qint64 bytes);

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 len) override;

private:
    void logDeviceError(const char* format) const;
    bool growTargetTo(qint64 length);

    QByteArray m_buffer;
    int m_bufferSize;
    int m_fill; // bytes held; -1 once a write to the target has failed
    QIODevice* m_target;
    qint64 m_finalLength = 0;
};

} // namespace Tern
