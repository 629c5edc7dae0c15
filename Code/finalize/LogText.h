#pragma once

#include <QString>

// The text of one log-box entry: the message with exactly one trailing newline dropped,
// so a line given as "text\n" shows without an empty line after it.
QString logLineText(const QString& message);
