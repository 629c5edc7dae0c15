#include "simulate/WavSimulator.h"

#include <QFile>
#include <QtEndian>

#include <cstring>

namespace {

const int kBextDescriptionSize = 256;
// Description, originator, originator reference, date, time, time reference, version, UMID, reserved.
const int kBextSize = 256 + 32 + 32 + 10 + 8 + 8 + 2 + 64 + 190;

void appendLe32(QByteArray& out, quint32 v)
{
    char b[4];
    qToLittleEndian<quint32>(v, b);
    out.append(b, 4);
}

void appendLe16(QByteArray& out, quint16 v)
{
    char b[2];
    qToLittleEndian<quint16>(v, b);
    out.append(b, 2);
}

void appendChunk(QByteArray& out, const char* id, const QByteArray& payload, quint32 declaredSize)
{
    out.append(id, 4);
    appendLe32(out, declaredSize);
    out.append(payload);
}

} // namespace

QByteArray defaultIXml()
{
    QByteArray text("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<BWFXML><IXML_VERSION>1.5</IXML_VERSION>"
                    "<PROJECT>DEMO</PROJECT><SCENE>1</SCENE><TAKE>1</TAKE></BWFXML>");
    return text + QByteArray(512 - text.size(), ' ');
}

QByteArray buildWav(const WavPlan& plan)
{
    QByteArray fmt;
    const int blockAlign = plan.channels * plan.bitsPerSample / 8;
    appendLe16(fmt, 1); // PCM
    appendLe16(fmt, quint16(plan.channels));
    appendLe32(fmt, quint32(plan.sampleRate));
    appendLe32(fmt, quint32(plan.sampleRate * blockAlign));
    appendLe16(fmt, quint16(blockAlign));
    appendLe16(fmt, quint16(plan.bitsPerSample));

    QByteArray bext = plan.bextDescription.left(kBextDescriptionSize);
    bext.append(QByteArray(kBextDescriptionSize - bext.size(), '\0'));
    bext.append(QByteArray(32 + 32 + 10 + 8, '\0'));
    char reference[8];
    qToLittleEndian<quint64>(plan.timeReference, reference);
    bext.append(reference, 8);
    bext.append(QByteArray(kBextSize - bext.size(), '\0'));

    QByteArray body("WAVE");
    appendChunk(body, "fmt ", fmt, quint32(fmt.size()));
    appendChunk(body, "bext", bext, quint32(bext.size()));
    if (!plan.ixml.isEmpty())
        appendChunk(body, "iXML", plan.ixml, quint32(plan.ixml.size()));
    appendChunk(body, "data", plan.pcm, plan.cutOff ? 0 : quint32(plan.pcm.size()));

    QByteArray wav("RIFF");
    appendLe32(wav, plan.cutOff ? 0 : quint32(body.size()));
    return wav + body;
}

QByteArray interleavePcm(const QVector<QByteArray>& channels, int bytesPerSample)
{
    if (channels.isEmpty() || bytesPerSample <= 0)
        return QByteArray();
    const int samples = channels.first().size() / bytesPerSample;
    QByteArray out(samples * channels.size() * bytesPerSample, '\0');
    char* at = out.data();
    for (int i = 0; i < samples; ++i) {
        for (const QByteArray& channel : channels) {
            std::memcpy(at, channel.constData() + i * bytesPerSample, size_t(bytesPerSample));
            at += bytesPerSample;
        }
    }
    return out;
}

bool writeWav(const QString& path, const WavPlan& plan)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return false;
    const QByteArray bytes = buildWav(plan);
    return file.write(bytes) == bytes.size();
}
