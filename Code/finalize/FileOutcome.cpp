#include "finalize/FileOutcome.h"

QString FileOutcome::fateName(Fate fate)
{
    switch (fate) {
    case Fate::Finalized:
        return QStringLiteral("finalized");
    case Fate::GivenUp:
        return QStringLiteral("given up");
    case Fate::GivenUpEarlier:
        return QStringLiteral("given up earlier");
    case Fate::NeedsFinishing:
        return QStringLiteral("needs finishing");
    case Fate::InUse:
        return QStringLiteral("in use");
    case Fate::Gone:
        return QStringLiteral("gone");
    case Fate::Unreadable:
        return QStringLiteral("unreadable");
    case Fate::NotWritable:
        return QStringLiteral("not writable");
    case Fate::LeftForTheCard:
        return QStringLiteral("left for the card");
    case Fate::CopyExists:
        return QStringLiteral("copy exists");
    }
    return QString();
}

QJsonObject FileOutcome::toJson() const
{
    QJsonObject object;
    object.insert("type", "file");
    object.insert("schema", s_jsonSchema);
    object.insert("path", pathBefore);
    object.insert("path_after", pathAfter);
    object.insert("family", family.isEmpty() ? QJsonValue() : QJsonValue(family));
    object.insert("outcome", fateName(fate));
    object.insert("reason", reason.isEmpty() ? QJsonValue() : QJsonValue(reason));
    QJsonValue copy;
    if (!copyPath.isEmpty() || !mediaHash.isEmpty())
        copy = QJsonObject{{"path", copyPath.isEmpty() ? QJsonValue() : QJsonValue(copyPath)},
            {"method", copyMethod}, {"check", copyCheck}, {"media_xxh64", mediaHash}};
    object.insert("copy", copy);
    const QJsonObject learned = facts.toJson();
    object.insert("learned", learned.isEmpty() ? QJsonValue() : QJsonValue(learned));
    return object;
}
