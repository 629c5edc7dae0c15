#pragma once

#include <QByteArray>

// WAV bytes written out by hand, field by field, little-endian, independent of the library under test.
namespace WavBytes {

// A chunk header with the given size field (the payload's own size unless told otherwise), then payload.
QByteArray chunk(const char* id, const QByteArray& payload, qint64 sizeField = -1);
QByteArray riff(const QByteArray& chunks, qint64 riffSize = -1, const char* form = "WAVE");
// 'fmt ' payload: tag, channels, sample rate, byte rate, block align, bits per sample.
QByteArray fmtPayload(quint16 tag, quint16 channels, quint32 rate, quint16 bits);
// 'bext' payload (602 bytes): Description (256), Originator (32), OriginatorReference (32),
// OriginationDate (10), OriginationTime (8), TimeReference (8), Version (2), UMID (64), reserved (190).
QByteArray bextPayload(const QByteArray& description, quint64 timeReference);
// MPEG 'fmt ' payload of 44 bytes: the 16 common bytes (tag 80, no bits per sample), the extension size at
// offset 16, two reserved bytes, then 24 extension bytes that open with the layer code.
QByteArray mpegFmtPayload(quint16 channels, quint32 rate, quint16 extensionSize, quint16 layer);
QByteArray spaces(int n);
// `count` bytes standing in for samples.
QByteArray pcmBytes(int count);

} // namespace WavBytes
