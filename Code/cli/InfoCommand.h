#pragma once

#include <QStringList>

// clipward-cli --info FILE...: what each recording holds, changing nothing; as text on stdout, or with
// `json` one JSON object per file. Returns the process's exit status.
int infoFiles(const QStringList& files, bool json);
