#include "finalize/Finalize.h"

#include <QFile>
#include <QtEndian>

// Family codes returned by getFileType.
namespace {
const int kFamilyHeron = 0;
const int kFamilyTern = 1;
const int kFamilyUnreadable = 2;

// A first atom at least this large is Heron's oversized 'ftyp'; Tern's is 20 bytes.
const quint32 kHeronFirstAtomMinimum = 128;

const unsigned int kResultUnrecoverable = 31;
} // namespace

Finalize::Finalize()
    : workBuffer(new unsigned short[s_workBufferEntries])
    , scanOnly(false)
    , goodCount(0)
    , badCount(0)
    , isTern(0)
{
    nameFilters << "*.zqv" << "*.zqa" << "*.nrv" << "*.nra";
}

Finalize::~Finalize()
{
    delete[] workBuffer;
}

bool Finalize::finalizeFolders(const QStringList& paths)
{
    goodCount = 0;
    badCount = 0;
    finalizeFolderTree(paths);
    return true;
}

bool Finalize::finalizeFolderTree(const QStringList& paths)
{
    m_walkedFolders.clear();
    for (const QString& path : paths) {
        QDir dir(QDir::toNativeSeparators(path));
        if (!dir.exists()) {
            emit textOutput(QString("ERROR: Specfied path does not exist: %1\n").arg(dir.absolutePath()));
            return true; // later start paths are abandoned on purpose
        }
        // Walk by absolute path: a relative one would resolve against the new current directory.
        dir.makeAbsolute();
        QDir::setCurrent(dir.absolutePath());
        finalizeFolderTree(dir);
    }
    return true;
}

bool Finalize::finalizeFolderTree(QDir& dir)
{
    const QString resolved = dir.canonicalPath();
    if (isSkipFolder(dir) || (!resolved.isEmpty() && m_walkedFolders.contains(resolved))) {
        emit textOutput(QString("Skipping folder: %1\n").arg(dir.absolutePath()));
        return true;
    }
    m_walkedFolders.insert(resolved);
    finalizeFolder(dir);

    QStringList subfolders = dir.entryList(QDir::AllDirs);
    subfolders.removeAll(".");
    subfolders.removeAll("..");
    for (const QString& name : subfolders) {
        if (!dir.cd(name))
            continue;
        finalizeFolderTree(dir);
        dir.cdUp();
    }
    return true;
}

bool Finalize::isSkipFolder(QDir& dir)
{
    for (const QString& skip : skipFolders) {
        if (dir == QDir(skip))
            return true;
    }
    return false;
}

bool Finalize::finalizeFolder(QDir& dir)
{
    emit textOutput(QString("Scanning folder: %1\n").arg(dir.absolutePath()));

    const QStringList names = dir.entryList(nameFilters);
    for (const QString& name : names) {
        const QString path = dir.absoluteFilePath(name);
        // Case-sensitive on purpose: "clip.NRV" is listed by the wildcard but goes on to dispatch.
        if (name.endsWith(".nra") || name.endsWith(".nrv")) {
            emit textOutput(QString("     %1 Unrecoverable\n").arg(path));
            ++badCount;
        } else if (scanOnly) {
            const int type = getFileType(path);
            emit textOutput(QString("     %1 %2 Requires finalize\n")
                                .arg(path, type == kFamilyTern ? "(tern)" : "(heron)"));
            ++goodCount;
        } else {
            const unsigned int result = doFinalize(path);
            if (result == 0)
                ++goodCount;
            else
                ++badCount;
            emit textOutput(QString("     %1 %2 %3\n")
                                .arg(dir.absoluteFilePath(outputFileName), isTern ? "(Tern)" : "(Heron)",
                                     result == 0 ? "Finalized" : "Unrecoverable"));
        }
    }
    return true;
}

int Finalize::getFileType(QString path)
{
    if (!path.toLower().endsWith(".zqv"))
        return kFamilyHeron;

    QFile file(path);
    if (!file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly)) // a vanished file is not recreated
        return kFamilyUnreadable;
    uchar firstWord[4];
    if (file.read(reinterpret_cast<char*>(firstWord), 4) < 4)
        return kFamilyUnreadable;
    file.close();

    const quint32 firstAtomSize = qFromBigEndian<quint32>(firstWord);
    return firstAtomSize < kHeronFirstAtomMinimum ? kFamilyTern : kFamilyHeron;
}

unsigned int Finalize::doFinalize(QString path)
{
    int type;
    {
        QFile unused(path); // constructed and dropped around the check, never opened
        type = getFileType(path);
    }
    if (type == kFamilyTern)
        return ternDoFinalize(path);
    if (type == kFamilyUnreadable)
        return kResultUnrecoverable; // outputFileName and isTern keep the previous file's values
    return heronDoFinalize(path);
}
