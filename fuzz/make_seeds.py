#!/usr/bin/env python3
"""Writes the small seed corpora of the fuzz targets into fuzz/corpus/<target>/.

Every seed is built here byte by byte, so the corpora can be regenerated and read without the program:
    python3 fuzz/make_seeds.py
"""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(data)


def be16(v): return struct.pack(">H", v)
def be32(v): return struct.pack(">I", v)
def be64(v): return struct.pack(">Q", v)
def le16(v): return struct.pack("<H", v)
def le32(v): return struct.pack("<I", v)
def le64(v): return struct.pack("<Q", v)


# ---- fuzz_recovery: flags byte, media length in 512-byte blocks, settings record, frame map.

MEDIA_START = 5472256


def record(family, **f):
    """The settings record: 120 bytes for Tern, 108 for Heron (end position and reel name earlier)."""
    r = bytearray(120 if family == "tern" else 108)
    def put(offset, fmt, value):
        struct.pack_into(fmt, r, offset, value)
    put(0, "<I", f.get("userData1", 0x11111111))
    put(4, "<I", f.get("timecode", 0x01000000))
    put(8, "<B", f.get("dropFrame", 0))
    put(12, "<I", f.get("userData2", 0x22222222))
    put(16, "<I", f.get("frameRate", 2500))
    put(20, "<I", f.get("userData5", 5))
    put(24, "<I", f.get("audioTracks", 2))
    put(28, "<I", f.get("audioBytesPerSample", 3))
    put(32, "<I", f.get("audioSampleRate", 48000))
    put(36, "<I", f.get("userData9", 9))
    put(40, "<H", f.get("width", 1920))
    put(42, "<H", f.get("height", 1080))
    put(44, "<I", f.get("interlaced", 0))
    put(48, "<I", f.get("videoCodecId", 1238))
    put(52, "<I", f.get("videoCodecType", 0))
    put(56, "<I", f.get("proResVariant", 0))
    put(60, "<I", f.get("lastChunkSamples", 0))
    put(64, "<I", f.get("firstChunkSamples", 0))
    reel = f.get("reelName", b"A001")
    if family == "tern":
        put(72, "<Q", f.get("recordedEndPosition", 0))
        put(80, "<I", f.get("audioSamplesPerChunk", 1920))
        put(84, "<I", f.get("videoFramesPerChunk", 1))
        r[88:88 + len(reel)] = reel
    else:
        put(68, "<Q", f.get("recordedEndPosition", 0))
        r[76:76 + len(reel)] = reel
    return bytes(r)


def interleaved_map(frames, video_blocks, sound_blocks):
    """A timecode sample, then one video frame and one sound chunk after another."""
    entries = [0x8001]
    for _ in range(frames):
        entries += [0x4000 | video_blocks, sound_blocks]
    return entries


def recovery_seed(family, entries, repeat=False, record_end=True, trailing_blocks=0, **settings):
    blocks = sum(e & 0x3FFF for e in entries)
    if record_end:
        settings.setdefault("recordedEndPosition", MEDIA_START + 512 * blocks)
    flags = (1 if family == "heron" else 0) | (2 if repeat else 0)
    return (bytes([flags]) + le32(blocks + trailing_blocks) + record(family, **settings)
            + b"".join(le16(e) for e in entries) + le16(0))


def recovery_seeds():
    t = "fuzz_recovery"
    write(t, "tern_dnxhd_two_channels", recovery_seed("tern", interleaved_map(20, 3, 23)))
    write(t, "tern_prores_interlaced_short_chunks", recovery_seed(
        "tern", interleaved_map(16, 5, 12), record_end=False, frameRate=5994, dropFrame=1, interlaced=1,
        videoCodecType=1, proResVariant=2, firstChunkSamples=800, lastChunkSamples=300,
        audioSamplesPerChunk=1001, audioBytesPerSample=2, videoFramesPerChunk=2, reelName=b"REEL_NAME_LONGER_THAN_31_CHARS!!"))
    write(t, "tern_29_entries", recovery_seed("tern", interleaved_map(14, 3, 23)))
    write(t, "tern_prores4444_no_sound", recovery_seed(
        "tern", [0x8001] + [0x4004] * 31 + [0xC001], audioTracks=0, videoCodecType=2, proResVariant=0,
        frameRate=2398, videoFramesPerChunk=3))
    write(t, "tern_full_map_no_terminator", recovery_seed(
        "tern", [0x8001, 0x4002, 0x0003, 0x4002, 0x0003], repeat=True, record_end=False, audioTracks=1)[:-2])
    write(t, "heron_dnxhd", recovery_seed("heron", interleaved_map(12, 4, 36), frameRate=2997, dropFrame=1))
    # Inputs that once broke recovery, kept so that every replay tries them again.
    write(t, "found_tern_end_position_bit63", recovery_seed(
        "tern", interleaved_map(20, 3, 23), recordedEndPosition=1 << 63))
    write(t, "found_heron_full_map_no_terminator", recovery_seed(
        "heron", [0x8001, 0x4004, 0x0024], repeat=True, record_end=False, trailing_blocks=3)[:-2])
    write(t, "heron_prores_no_entries", recovery_seed(
        "heron", [], record_end=False, trailing_blocks=3, videoCodecType=1, proResVariant=3, audioTracks=4))


# ---- fuzz_recovery_full_map: fuzz_recovery's input; the map is always repeated through the whole map.
def full_map_seeds():
    t = "fuzz_recovery_full_map"
    write(t, "tern_sound_and_video", recovery_seed(
        "tern", [0x8001, 0x4002, 0x0003, 0x4002, 0x0003], record_end=False, audioTracks=1)[:-2])
    write(t, "tern_dnxhd_two_channels", recovery_seed("tern", interleaved_map(20, 3, 23))[:-2])
    write(t, "heron_sound_and_video", recovery_seed(
        "heron", [0x8001, 0x4004, 0x0024], record_end=False, trailing_blocks=3)[:-2])


# ---- fuzz_resume: the write to kill at (little-endian 16 bits), then fuzz_recovery's input.
def resume_seeds():
    t = "fuzz_resume"
    for kill in (1, 3, 7):
        write(t, "tern_end_from_file_size_kill_%d" % kill, le16(kill - 1) + recovery_seed(
            "tern", interleaved_map(20, 3, 23), record_end=False, trailing_blocks=5))
        write(t, "tern_recorded_end_kill_%d" % kill, le16(kill - 1) + recovery_seed(
            "tern", interleaved_map(20, 3, 23), trailing_blocks=5))
        write(t, "heron_end_from_file_size_kill_%d" % kill, le16(kill - 1) + recovery_seed(
            "heron", interleaved_map(12, 4, 36), record_end=False, trailing_blocks=5))
    write(t, "tern_four_tracks_repeated_map", le16(4) + recovery_seed(
        "tern", interleaved_map(20, 3, 23), repeat=True, record_end=False, audioTracks=4)[:-2])
    # Inputs that once broke resuming, kept so that every replay tries them again.
    # A map listing more media than the file holds: the partial index lies inside what the map lists.
    write(t, "found_heron_map_beyond_the_file_kill_3", le16(2) + recovery_seed(
        "heron", interleaved_map(12, 4, 36), repeat=True, record_end=False)[:-2])


# ---- fuzz_wav: RIFF/WAVE files with 'fmt ', 'bext', 'iXML' and 'data' chunks.

def chunk(ident, payload, size=None):
    return ident + le32(len(payload) if size is None else size) + payload


def riff(*chunks, form=b"WAVE"):
    body = form + b"".join(chunks)
    return b"RIFF" + le32(len(body)) + body


def fmt_pcm(channels, bits, rate=48000):
    block = channels * bits // 8
    return chunk(b"fmt ", le16(1) + le16(channels) + le32(rate) + le32(rate * block) + le16(block) + le16(bits))


def bext(description, time_reference):
    text = description.ljust(256, b"\0")
    return chunk(b"bext", text + b"\0" * 82 + le64(time_reference) + le16(1) + b"\0" * 254)


IXML = (b"<?xml version=\"1.0\"?><BWFXML><PROJECT>P</PROJECT><SCENE>1</SCENE><TAKE>2</TAKE>"
        b"<TRACK_LIST><TRACK_COUNT>1</TRACK_COUNT><TRACK><CHANNEL_INDEX>1</CHANNEL_INDEX>"
        b"<INTERLEAVE_INDEX>1</INTERLEAVE_INDEX><NAME>Boom</NAME></TRACK></TRACK_LIST></BWFXML>" + b" " * 40)


def wav_seeds():
    t = "fuzz_wav"
    samples = b"\x01\x02" * 32
    write(t, "pcm16_bext_ixml_cut_off", riff(
        fmt_pcm(2, 16), bext(b"SPEED=029.970-DF\r\nUBITS=$12345678\r\nMEDIA=3\r\n", 48000 * 60),
        chunk(b"iXML", IXML), chunk(b"data", samples, size=0)))
    write(t, "pcm24_time_reference_no_speed", riff(fmt_pcm(2, 24), bext(b"", 96000), chunk(b"data", samples)))
    mpeg_fmt = (le16(80) + le16(2) + le32(48000) + le32(24000) + le16(1) + le16(0) + le16(24)
                + le16(2) + b"\0" * 22)
    write(t, "mpeg_layer2", riff(chunk(b"fmt ", mpeg_fmt), chunk(b"data", samples)))
    write(t, "odd_chunk_before_data", riff(fmt_pcm(1, 16), chunk(b"junk", b"abc"), chunk(b"data", samples)))
    write(t, "fmt_18_bytes", riff(chunk(b"fmt ", b"\x01\x00" * 9), chunk(b"data", samples)))
    write(t, "not_wave", riff(chunk(b"data", samples), form=b"AVI "))
    # Once divided the time reference by a sample rate of 0.
    zero_rate_fmt = chunk(b"fmt ", le16(1) + le16(2) + le32(0) + le32(0) + le16(4) + le16(16))
    write(t, "found_zero_sample_rate_time_reference", riff(
        zero_rate_fmt, bext(b"", 1), chunk(b"iXML", b""), chunk(b"data", samples, size=0)))


# ---- fuzz_parser: movies of atoms written out by hand.

def box(kind, payload):
    return be32(8 + len(payload)) + kind + payload


def full_box(kind, payload, flags=0):
    return box(kind, be32(flags) + payload)


def description(fmt, fields, extensions=b""):
    return be32(16 + len(fields) + len(extensions)) + fmt + b"\0" * 6 + be16(1) + fields + extensions


def video_description(fmt, width, height, extensions):
    fields = (be16(0) + be16(0) + b"appl" + be32(512) + be32(512) + be16(width) + be16(height)
              + be32(0x480000) + be32(0x480000) + be32(0) + be16(1) + b"\x0bApple ProRes".ljust(32, b"\0")
              + be16(24) + be16(0xFFFF))
    return description(fmt, fields, extensions + be32(0))


def sound_description(fmt, bytes_per_sample):
    fields = (be16(1) + be16(0) + be32(0) + be16(1) + be16(16) + be16(0) + be16(0) + be32(48000 << 16)
              + be32(1) + be32(bytes_per_sample) + be32(bytes_per_sample) + be32(2))
    wave = box(b"wave", box(b"frma", fmt) + box(b"enda", be16(1)) + be32(0) + be32(0))
    return description(fmt, fields, wave)


def timecode_description(reel):
    fields = be32(0) + be32(1) + be32(2500) + be32(100) + bytes([25, 0])
    name = box(b"name", be16(len(reel)) + be16(0) + reel)
    return description(b"tmcd", fields, name)


def tables(entry, duration, samples, sample_size=0):
    stsz = full_box(b"stsz", be32(sample_size) + be32(samples)
                    + (b"".join(be32(1536) for _ in range(samples)) if sample_size == 0 else b""))
    co64 = full_box(b"co64", be32(samples) + b"".join(be64(MEDIA_START + 1536 * i) for i in range(samples)))
    return box(b"stbl", full_box(b"stsd", be32(1) + entry) + full_box(b"stts", be32(1) + be32(samples) + be32(duration))
               + full_box(b"stsc", be32(1) + be32(1) + be32(1) + be32(1)) + stsz + co64)


def handler(kind, subtype, name):
    return full_box(b"hdlr", kind + subtype + be32(0) + be32(0) + be32(0) + bytes([len(name)]) + name)


def data_information():
    return (handler(b"dhlr", b"alis", b"DataHandler")
            + box(b"dinf", full_box(b"dref", be32(1) + full_box(b"alis", b"", flags=1))))


def track(track_id, subtype, name, media_header, stbl, scale):
    tkhd = full_box(b"tkhd", be32(0) * 2 + be32(track_id) + be32(0) + be32(10) + b"\0" * 60, flags=0xF)
    edts = box(b"edts", full_box(b"elst", be32(1) + be32(10) + be32(0) + be32(0x10000)))
    mdhd = full_box(b"mdhd", be32(0) * 2 + be32(scale) + be32(10) + be16(0) + be16(0))
    minf = box(b"minf", media_header + data_information() + stbl)
    return box(b"trak", tkhd + edts + box(b"mdia", mdhd + handler(b"mhlr", subtype, name) + minf))


def halden(entries):
    values = [0x00010000, 0, len(entries), 2, 2, 1] + [1, 2, 2500, 0, 5, 1, 24, 48000, 9] + [1]
    return full_box(b"hldn", b"".join(be32(v) for v in values) + b"\0" * 72 + b"".join(be16(e) for e in entries))


def movie(video_entry, with_halden=True):
    gmhd = box(b"gmhd", full_box(b"gmin", be16(0x40) + be16(0x8000) * 3 + be16(0) + be16(0))
               + box(b"tmcd", full_box(b"tcmi", be16(0) * 2 + be16(12) + be16(0xFFFF) * 3 + be16(0) * 3
                                       + b"\x06System")))
    timecode = track(1, b"tmcd", b"TimecodeHandler", gmhd, tables(timecode_description(b"A001"), 10, 1), 2500)
    video = track(2, b"vide", b"VideoHandler", full_box(b"vmhd", be16(0) + be16(0) * 3, flags=1),
                  tables(video_entry, 100, 2), 2500)
    sound = track(3, b"soun", b"SoundHandler", full_box(b"smhd", be16(0) + be16(0)),
                  tables(sound_description(b"in24", 3), 1, 2, sample_size=3), 48000)
    mvhd = full_box(b"mvhd", be32(0) * 2 + be32(2500) + be32(200) + be32(0x10000) + be16(0x100) + b"\0" * 10
                    + b"\0" * 36 + be32(0) * 6 + be32(2))
    udta = box(b"udta", halden([0x8001, 0x4003, 0x0002, 0x4003, 0x0002])) if with_halden else b""
    moov = box(b"moov", udta + mvhd + timecode + video + sound)
    ftyp = box(b"ftyp", b"qt  " + be32(0x20070400) + b"qt  ")
    mdat = be32(1) + b"mdat" + be64(16 + 64) + b"\0" * 64
    return ftyp + mdat + moov


def parser_seeds():
    t = "fuzz_parser"
    prores = video_description(b"apcn", 1920, 1080, box(b"colr", b"nclc" + be16(1) * 3)
                               + box(b"fiel", bytes([2, 14])) + box(b"pasp", be32(1) + be32(1)))
    write(t, "prores_with_maker_atom", movie(prores))
    avid = video_description(b"AVdn", 720, 486, box(b"ARES", b"ARES" + b"0001" + be32(1238) + be32(720)
                                                    + be32(486) + be32(2) + be32(0) * 3)
                             + box(b"ACLR", b"ACLR0001" + be32(1) + be32(0) * 2))
    write(t, "avid_480_without_maker_atom", movie(avid, with_halden=False))
    write(t, "user_data_not_maker", box(b"ftyp", b"qt  ") + box(b"moov", box(b"udta", box(b"uset", b"x" * 8))
                                                                 + box(b"trak", box(b"tkhd", b""))))
    write(t, "truncated_extended_size", be32(1) + b"moov" + be64(1 << 40) + box(b"mvhd", b"\0" * 4))


# ---- fuzz_verify: the same small movies as the parser's, read by the sample-table check.

def verify_seeds():
    t = "fuzz_verify"
    prores = video_description(b"apcn", 1920, 1080, box(b"colr", b"nclc" + be16(1) * 3))
    write(t, "prores_with_maker_atom", movie(prores))
    write(t, "prores_without_maker_atom", movie(prores, with_halden=False))


# ---- fuzz_timecode: bytes read as rate codes, sample rates and timecode words.

def timecode_seeds():
    t = "fuzz_timecode"
    raw = (le16(4) + le32(48000) + le64(2879680) + le64(0x00010002) + le64(1) + b"\0" + le32(5994) + b"\1"
           + le32(2) + bytes([2, 5]))
    write(t, "drop_frame_minute", raw + bytes([4, 0, 0, 59, 29, 0, 0, 0, 1]) + le32(1798) + le32(48000))
    write(t, "film_rate", le16(0) + le32(44100) + le64(10 ** 9) + le64(0x17343B17) + le64(0x00000001) + b"\1"
          + le32(2398) + b"\0" + le32(64) + bytes([0, 6]) + bytes([0, 23, 59, 59, 23, 0, 0, 0, 1]) + le32(7)
          + le32(44099))
    write(t, "unknown_rate_code", le16(255) + le32(1) + le64(12345) + le64(0xFFFFFFFF) + le64(0x0101) + b"\0"
          + le32(0) + b"\0" + le32(0) + bytes([255, 7]) + bytes([7]) + le16(1000) + bytes([1, 2, 3, 4, 5, 6, 7, 8]))
    write(t, "thirty_drop", le16(6) + le32(96000) + le64(1) + le64(0x00095929) + le64(0x00000002) + b"\0"
          + le32(6000) + b"\1" + le32(63) + bytes([6, 5]) + bytes([6, 23, 9, 59, 29, 0, 10, 0, 0]) + le32(2589407)
          + le32(8000))


if __name__ == "__main__":
    recovery_seeds()
    full_map_seeds()
    resume_seeds()
    wav_seeds()
    parser_seeds()
    timecode_seeds()
    verify_seeds()
