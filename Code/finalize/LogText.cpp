#include "finalize/LogText.h"

QString logLineText(const QString& message)
{
    QString text = message;
    if (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    return text;
}
