// The sample-table check behind clipward-cli --verify on arbitrary bytes: the top-level walk, every
// track's tables, and for movies with a maker atom the comparison with its frame list and the recorder's
// map. Beyond memory safety, undefined behaviour and bounded time, nothing is checked of the answer.

#include "FuzzSupport.h"
#include "movie/SampleTableCheck.h"

#include <QBuffer>
#include <QByteArray>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FuzzSupport::quietLog();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    QByteArray bytes = QByteArray::fromRawData(reinterpret_cast<const char*>(data), int(size));
    QBuffer file(&bytes);
    file.open(QIODevice::ReadOnly);
    checkSampleTables(file);
    return 0;
}
