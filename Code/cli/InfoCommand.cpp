// clipward-cli --info: each file's description as text, or as one JSON object per line.

#include "cli/InfoCommand.h"

#include "finalize/RecordingInfo.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace {

const int kExitOk = 0;
const int kExitNotKnown = 1;
// The version of the --info fields: raised only when a field's meaning changes.
const int kInfoSchema = 1;

void writeLine(const QByteArray& bytes)
{
    std::fwrite(bytes.constData(), 1, size_t(bytes.size()), stdout);
    std::fputc('\n', stdout);
}

} // namespace

int infoFiles(const QStringList& files, bool json)
{
    int notKnown = 0;
    for (int i = 0; i < files.size(); ++i) {
        QJsonObject description = RecordingInfo::describe(files.at(i));
        if (!RecordingInfo::known(description))
            ++notKnown;
        if (json) {
            description.insert("type", "info");
            description.insert("schema", kInfoSchema);
            writeLine(QJsonDocument(description).toJson(QJsonDocument::Compact));
        } else {
            if (i > 0)
                writeLine(QByteArray()); // a blank line between files
            for (const QString& line : RecordingInfo::textLines(description))
                writeLine(line.toUtf8());
        }
        std::fflush(stdout); // each file as soon as it is described
    }
    return notKnown != 0 ? kExitNotKnown : kExitOk;
}
