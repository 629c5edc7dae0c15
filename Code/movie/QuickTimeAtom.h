#pragma once

#include <QByteArray>
#include <QDataStream>
#include <QList>
#include <QString>
#include <QtGlobal>

class QIODevice;

namespace Tern {

class QuickTimeFile;

// Four-character code from its four letters, first letter most significant ('moov' is 0x6D6F6F76).
constexpr quint32 fourCC(const char (&code)[5])
{
    return (quint32(quint8(code[0])) << 24) | (quint32(quint8(code[1])) << 16) | (quint32(quint8(code[2])) << 8)
         | quint32(quint8(code[3]));
}

// One atom of a movie's index. Owns its children; sizes and file positions are kept incrementally as
// children are added, so a parent's size is final once its last child is in.
class QuickTimeAtom
{
public:
    QuickTimeAtom(); // the root: type 0, writes no header of its own
    QuickTimeAtom(quint32 type, quint32 payloadSize, int fieldCount);
    virtual ~QuickTimeAtom();

    virtual void write(QDataStream& stream);
    virtual void writeHeader(QDataStream& stream);
    virtual void writeChildren(QDataStream& stream);
    virtual bool read(QDataStream& stream, quint64* remaining);
    virtual int getFieldName(int index, QString& name) const;
    virtual int getFieldValue(int index, QString& value) const;

    QuickTimeAtom* addAtom(QuickTimeAtom* child);
    void addSize(quint32 n);
    void removeAllChildren();

    QString fieldName(int index) const;
    QString fieldValue(int index) const;
    static QString fourByteString(quint32 code);
    QString typeName() const;

    // Parser entry points (reading side).
    static bool readNextAtom(QuickTimeFile* file, QuickTimeAtom** out, QDataStream& stream, quint64* remaining);
    bool readChildren(QDataStream& stream, quint64* remaining);

    // Takes n bytes from a read budget; false (budget untouched) when fewer remain.
    static bool consume(quint64* remaining, quint64 n);
    // Moves the stream's device n bytes on without reading them; false when the device ends first (it is
    // then left at its end).
    static bool skipBytes(QDataStream& stream, quint64 n);
    // Seeks to pos, or to the device's end when pos lies beyond it.
    static bool seekWithin(QIODevice* device, qint64 pos);

    // How deep the parser is in nested reads; 0 between top-level atoms.
    static int nestingLevel;

    QuickTimeFile* file = nullptr;
    quint32 type = 0;
    quint32 size = 0;
    quint64 size64 = 0;
    quint64 startPos = 0;
    bool constructed = false;
    int fieldCount = 0;
    QuickTimeAtom* parent = nullptr;
    QList<QuickTimeAtom*> children;
    qint64 position = -1;

protected:
    // Consumes the 8-byte header from *remaining and drops any children; false when fewer than 8 remain.
    bool readHeaderCount(quint64* remaining);

private:
    Q_DISABLE_COPY(QuickTimeAtom)
};

// Atom with a version byte and 24 bits of flags after its header.
class QuickTimeVersionFlagsAtom : public QuickTimeAtom
{
public:
    QuickTimeVersionFlagsAtom(quint32 type, quint32 payloadSize, int fieldCount, quint8 version, quint32 flags);

    void write(QDataStream& stream) override;
    void writeHeader(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;
    int getFieldName(int index, QString& name) const override;
    int getFieldValue(int index, QString& value) const override;

    quint8 version;
    quint8 flags[3];

protected:
    void writeVersionFlags(QDataStream& stream);
};

// Base of atoms whose size is written in the 64-bit form.
class QuickTimeAtom64 : public QuickTimeAtom
{
public:
    using QuickTimeAtom::QuickTimeAtom;
};

// 'mdat': only its 16-byte header goes through the tree; the media is written straight to the device.
class QuickTimeMovieDataAtom : public QuickTimeAtom64
{
public:
    explicit QuickTimeMovieDataAtom(quint64 payloadBytes);
    bool addData(const QByteArray& bytes, QIODevice& device);
    void write(QDataStream& stream) override;

    quint64 dataSize; // total size, header included
};

// 'skip' padding that brings the next atom onto a 512-byte boundary.
class QuickTimeSkipAtom : public QuickTimeAtom
{
public:
    static constexpr int s_zeroFillSize = 512;

    QuickTimeSkipAtom();
    void write(QDataStream& stream) override;
    quint32 alignNext(qint64 pos);

    char zeroFill[s_zeroFillSize];
};

class QuickTimeWideAtom : public QuickTimeAtom
{
public:
    QuickTimeWideAtom();
};

// Any atom the parser does not know: kept only to be skipped.
class QuickTimeUnrecognizedAtom : public QuickTimeAtom
{
public:
    QuickTimeUnrecognizedAtom(quint32 type, quint32 size);
    void write(QDataStream& stream) override;
    bool read(QDataStream& stream, quint64* remaining) override;
};

// Containers: no payload of their own; their size grows only as children are added.

// A container the parser reads: its header, then its children up to its end.
class QuickTimeContainerAtom : public QuickTimeAtom
{
public:
    explicit QuickTimeContainerAtom(quint32 type) : QuickTimeAtom(type, 0, 0) {}
    bool read(QDataStream& stream, quint64* remaining) override;
};

class QuickTimeMovieAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeMovieAtom() : QuickTimeContainerAtom(fourCC("moov")) {}
};

class QuickTimeTrackAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeTrackAtom() : QuickTimeContainerAtom(fourCC("trak")) {}
    bool read(QDataStream& stream, quint64* remaining) override;
};

class QuickTimeEditAtom : public QuickTimeAtom
{
public:
    QuickTimeEditAtom() : QuickTimeAtom(fourCC("edts"), 0, 0) {}
};

class QuickTimeMediaAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeMediaAtom() : QuickTimeContainerAtom(fourCC("mdia")) {}
};

class QuickTimeMediaInformationAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeMediaInformationAtom() : QuickTimeContainerAtom(fourCC("minf")) {}
};

class QuickTimeBaseInformationHeaderAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeBaseInformationHeaderAtom() : QuickTimeContainerAtom(fourCC("gmhd")) {}
};

class QuickTimeTimecodeHeaderAtom : public QuickTimeAtom
{
public:
    QuickTimeTimecodeHeaderAtom() : QuickTimeAtom(fourCC("tmcd"), 0, 0) {}
};

class QuickTimeDataInformationAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeDataInformationAtom() : QuickTimeContainerAtom(fourCC("dinf")) {}
};

class QuickTimeSampleTableAtom : public QuickTimeContainerAtom
{
public:
    QuickTimeSampleTableAtom() : QuickTimeContainerAtom(fourCC("stbl")) {}
};

class QuickTimeUserDataAtom : public QuickTimeAtom
{
public:
    QuickTimeUserDataAtom() : QuickTimeAtom(fourCC("udta"), 0, 0) {}
    bool read(QDataStream& stream, quint64* remaining) override;
};

class QuickTimeRecoveryDataAtom : public QuickTimeAtom
{
public:
    QuickTimeRecoveryDataAtom() : QuickTimeAtom(fourCC("urec"), 0, 0) {}
};

} // namespace Tern
