#!/usr/bin/env python3
"""Cuts fuzz seeds out of the NTFS fixture images.

    fuzz/make_seeds.py <fixture-dir> <out-dir>

Writes <out-dir>/<target>/<seed> for every fuzz target. Whole images are far
too large for fuzz inputs, so the seeds are the meaningful pieces of them:

  filerecord_parse    geometry prefix + one in-use FILE record
  record_reader       a FILE record, in use or free, as stored (1 KiB), and the
                      record after it (read as an extension record)
  runlist_decode      flags + maxClusters + the run bytes of one
                      non-resident attribute
  indx_postprocess    geometry prefix + a directory's FILE record + the disk
                      bytes from its first index allocation run on
  partition_table     the partition table sectors of the disk images, their
                      entries moved so that the partitions lie inside the
                      seed; the GPT also re-laid for 4096-byte sectors; an
                      MBR with a chain of logical partitions made by sfdisk
  boot_sector         the boot sector of every volume, and the first 64 KiB
                      of FAT volumes (boot sector, FAT, root directory of the
                      small FAT volumes that mkfs.vfat makes here)
  ntfs_volume         compact NTFS volumes: the boot sector, the first MFT
                      records moved next to it, and the index blocks, the
                      cluster bitmap and small data of those records moved
                      after them, their run lists rewritten to match
  disk_image_backend  the compact volumes, and compact disks: the MBR and
                      GPT images' tables pointing at compact volumes; the
                      small volumes' $MFT as collection tools extract it
  master_file_table   the same disks as disk_image_backend

Only the fixture images are read; nothing is written but the seeds.
"""
import os
import shutil
import struct
import subprocess
import sys
import tempfile

FIXUP_STRIDE = 512
MAX_MFT_BYTES = 128 * 1024
MAX_MOVED_BYTES = 320 * 1024
MAX_WINDOW = 64 * 1024
SECTORS_PER_CLUSTER_CHOICES = [8, 1, 2, 4, 16, 32, 64, 128]


def u16(b, o):
    return struct.unpack_from("<H", b, o)[0]


def u32(b, o):
    return struct.unpack_from("<I", b, o)[0]


def u64(b, o):
    return struct.unpack_from("<Q", b, o)[0]


def write(out, target, name, data):
    directory = os.path.join(out, target)
    os.makedirs(directory, exist_ok=True)
    with open(os.path.join(directory, name), "wb") as f:
        f.write(data)


# ---- NTFS pieces --------------------------------------------------------------


class Ntfs:
    """One NTFS volume at `offset` bytes into `image`."""

    def __init__(self, image, offset):
        self.image = image
        self.offset = offset
        with open(image, "rb") as f:
            f.seek(offset)
            self.boot = f.read(512)
        b = self.boot
        if b[3:11] != b"NTFS    ":
            raise ValueError("not NTFS")
        self.bps = u16(b, 0x0B)
        spc = b[0x0D]
        self.spc = spc if spc <= 0x80 else 1 << (256 - spc)
        self.cluster = self.bps * self.spc
        self.total_sectors = u64(b, 0x28)
        self.mft_lcn = u64(b, 0x30)
        cpr = struct.unpack_from("<b", b, 0x40)[0]
        self.record_size = cpr * self.cluster if cpr > 0 else 1 << -cpr
        mft = subprocess.run(["icat", "-f", "ntfs", "-o", str(offset // 512), image, "0"],
                             check=True, capture_output=True).stdout
        self.mft = mft
        self.count = len(mft) // self.record_size

    def read(self, offset, length):
        with open(self.image, "rb") as f:
            f.seek(self.offset + offset)
            return f.read(length)

    def raw_record(self, index):
        r = self.record_size
        return bytearray(self.mft[index * r:(index + 1) * r])

    def geometry_prefix(self, record_size=None):
        """The 9 bytes that filerecord_fuzz_platform.h reads."""
        record_size = record_size or self.record_size
        choice = SECTORS_PER_CLUSTER_CHOICES.index(self.spc)
        flags = (1 if self.bps == 4096 else 0) | (choice << 1) | (0x10 if record_size == 4096 else 0)
        total = self.total_sectors // self.spc
        first = self.offset // self.cluster
        return bytes([flags]) + struct.pack("<II", total & 0xFFFFFFFF, first & 0xFFFFFFFF)


def fixed_up(record):
    """A copy with the update sequence applied, for reading values only."""
    r = bytearray(record)
    usa, count = u16(r, 4), u16(r, 6)
    for i in range(1, count):
        end = i * FIXUP_STRIDE - 2
        if usa + 2 * i + 2 > len(r) or end + 2 > len(r):
            break
        r[end:end + 2] = r[usa + 2 * i:usa + 2 * i + 2]
    return r


def in_use(record):
    return record[:4] == b"FILE" and (u16(record, 0x16) & 1) != 0


def attributes(record):
    """The attributes of a fixed-up record, as dicts."""
    out = []
    offset = u16(record, 0x14)
    end = min(u32(record, 0x18), len(record))
    while offset + 16 <= end:
        kind = u32(record, offset)
        if kind == 0xFFFFFFFF:
            break
        length = u32(record, offset + 4)
        if length < 16 or offset + length > end:
            break
        a = {"type": kind, "offset": offset, "length": length,
             "nonresident": record[offset + 8] != 0}
        name_length, name_offset = record[offset + 9], u16(record, offset + 0x0A)
        a["name"] = record[offset + name_offset:offset + name_offset + 2 * name_length].decode(
            "utf-16-le", "replace")
        if a["nonresident"] and length >= 0x40:
            run_offset = u16(record, offset + 0x20)
            a["run_offset"] = run_offset
            a["runs"] = bytes(record[offset + run_offset:offset + length])
            a["allocated"] = u64(record, offset + 0x28)
        out.append(a)
        offset += length
    return out


def decode_runs(data):
    """(length, lcn or None) per run."""
    runs, position, lcn = [], 0, 0
    while position < len(data) and data[position] != 0:
        header = data[position]
        lb, ob = header & 15, header >> 4
        if lb == 0 or lb > 8 or ob > 8 or position + 1 + lb + ob > len(data):
            break
        length = int.from_bytes(data[position + 1:position + 1 + lb], "little")
        if ob == 0:
            runs.append((length, None))
        else:
            lcn += int.from_bytes(data[position + 1 + lb:position + 1 + lb + ob], "little",
                                  signed=True)
            runs.append((length, lcn))
        position += 1 + lb + ob
    return runs


def encode_run(length, lcn):
    lb = max(1, (length.bit_length() + 7) // 8)
    ob = 1
    while not -(1 << (8 * ob - 1)) <= lcn < (1 << (8 * ob - 1)):
        ob += 1
    return (bytes([ob << 4 | lb]) + length.to_bytes(lb, "little") +
            lcn.to_bytes(ob, "little", signed=True) + b"\0")


def patch(raw, fixed, position, data):
    """Writes `data` into a raw record unless it would cover a sector's
    update sequence number (the last two bytes of each 512-byte stride)."""
    for p in range(position, position + len(data)):
        if p % FIXUP_STRIDE >= FIXUP_STRIDE - 2:
            return False
    raw[position:position + len(data)] = data
    fixed[position:position + len(data)] = data
    return True


def rewrite_runs(raw, fixed, attribute, new_runs):
    """Replaces the attribute's run list with `new_runs` if it fits."""
    start = attribute["offset"] + attribute["run_offset"]
    space = attribute["length"] - attribute["run_offset"]
    if len(new_runs) > space:
        return False
    return patch(raw, fixed, start, new_runs + b"\0" * (space - len(new_runs)))


def compact_volume(v, with_upcase=False):
    """A small NTFS volume made of v's boot sector, its first MFT records and
    the clusters those records' small non-resident attributes use, moved to
    lie one after the other. Returns the bytes."""
    c = v.cluster
    records = min(v.count, max(1, MAX_MFT_BYTES // v.record_size))
    mft_lcn = max(1, -(-8192 // c))
    mft_clusters = -(-(records * v.record_size) // c)
    next_lcn = mft_lcn + mft_clusters
    moved = []  # (new lcn, bytes)
    moved_bytes = 0
    mft = bytearray()
    for index in range(records):
        raw = v.raw_record(index)
        fixed = fixed_up(raw)
        if in_use(raw):
            for a in attributes(fixed):
                if "runs" not in a:
                    continue
                if index == 0 and a["type"] == 0x80 and a["name"] == "":
                    if rewrite_runs(raw, fixed, a, encode_run(mft_clusters, mft_lcn)):
                        base = a["offset"]
                        patch(raw, fixed, base + 0x18, struct.pack("<Q", mft_clusters - 1))
                        patch(raw, fixed, base + 0x28,
                              struct.pack("<QQQ", mft_clusters * c, records * v.record_size,
                                          records * v.record_size))
                    continue
                wanted = (a["type"] == 0xA0 and a["name"] == "$I30") or (
                    a["type"] == 0x80 and (index == 6 or index >= 16 or
                                           (index == 10 and with_upcase)))
                if not wanted:
                    continue
                runs = decode_runs(a["runs"])
                clusters = sum(n for n, _ in runs)
                if clusters == 0 or any(lcn is None for _, lcn in runs):
                    continue
                if moved_bytes + clusters * c > MAX_MOVED_BYTES:
                    continue
                data = b"".join(v.read(lcn * c, n * c) for n, lcn in runs)
                if rewrite_runs(raw, fixed, a, encode_run(clusters, next_lcn)):
                    moved.append((next_lcn, data))
                    moved_bytes += len(data)
                    next_lcn += clusters
        mft += raw
    size = next_lcn * c + v.bps  # one sector more for the backup boot sector
    out = bytearray(size)
    out[:min(8192, mft_lcn * c)] = v.read(0, min(8192, mft_lcn * c))
    out[mft_lcn * c:mft_lcn * c + len(mft)] = mft
    for lcn, data in moved:
        out[lcn * c:lcn * c + len(data)] = data
    struct.pack_into("<QQ", out, 0x28, size // v.bps - 1, mft_lcn)
    out[size - v.bps:size - v.bps + 512] = out[:512]
    return bytes(out)


# ---- Seeds per target ---------------------------------------------------------


def ntfs_volumes(fixtures):
    """(name, Ntfs) for every NTFS volume of the fixture images."""
    found = []
    for image in sorted(os.listdir(fixtures)):
        if not image.endswith(".img"):
            continue
        path = os.path.join(fixtures, image)
        base = image[:-4]
        try:
            found.append((base, Ntfs(path, 0)))
            continue
        except (ValueError, subprocess.CalledProcessError):
            pass
        for start in partition_starts(path):
            try:
                found.append((f"{base}-{start}", Ntfs(path, start * 512)))
            except (ValueError, subprocess.CalledProcessError):
                pass
    return found


def partition_starts(image):
    result = subprocess.run(["mmls", image], capture_output=True, text=True)
    starts = []
    for line in result.stdout.splitlines():
        fields = line.split()
        if len(fields) >= 3 and fields[1][:1].isdigit():
            starts.append(int(fields[2]))
    return starts


def seed_records(out, name, v):
    for index in range(v.count):
        raw = v.raw_record(index)
        if in_use(raw):
            write(out, "filerecord_parse", f"{name}-{index:06d}", v.geometry_prefix() + raw)
        if raw[:4] == b"FILE" and index + 1 < v.count:
            following = v.raw_record(index + 1)
            write(out, "record_reader", f"{name}-{index:06d}", raw[:1024] + following[:1024])


def seed_run_lists(out, name, v):
    seen = set()
    for index in range(v.count):
        raw = v.raw_record(index)
        if not in_use(raw):
            continue
        for a in attributes(fixed_up(raw)):
            if "runs" not in a or a["runs"] in seen:
                continue
            seen.add(a["runs"])
            max_clusters = a["allocated"] // v.cluster
            diagnostics = 1 if len(seen) % 4 == 0 else 0
            write(out, "runlist_decode", f"{name}-{index:06d}-{a['type']:x}",
                  bytes([diagnostics]) + struct.pack("<Q", max_clusters) + a["runs"])


def seed_index_blocks(out, name, v):
    for index in range(v.count):
        raw = v.raw_record(index)
        if not in_use(raw):
            continue
        for a in attributes(fixed_up(raw)):
            if a["type"] != 0xA0 or a["name"] != "$I30" or "runs" not in a:
                continue
            runs = [r for r in decode_runs(a["runs"]) if r[1] is not None]
            if not runs:
                continue
            # The disk as the fuzz platform serves it: from the first run's
            # first cluster on, each run at its place relative to it.
            first = runs[0][1]
            window = bytearray()
            for length, lcn in runs:
                at = (lcn - first) * v.cluster
                if at < 0 or at >= MAX_WINDOW:
                    continue
                data = v.read(lcn * v.cluster, min(length * v.cluster, MAX_WINDOW - at))
                window[len(window):] = b"\0" * max(0, at + len(data) - len(window))
                window[at:at + len(data)] = data
            write(out, "indx_postprocess", f"{name}-{index:06d}",
                  v.geometry_prefix() + raw + bytes(window))


def seed_volumes(out, name, v):
    # One volume brings its $UpCase (128 KiB), so that case folding from
    # the disk's own table is reached too.
    compact = compact_volume(v, with_upcase=(name == "bare"))
    write(out, "ntfs_volume", name, compact)
    write(out, "disk_image_backend", name, compact)
    write(out, "boot_sector", f"{name}-ntfs", v.boot)
    if len(v.mft) <= MAX_MFT_BYTES:
        write(out, "disk_image_backend", f"{name}-extracted-mft", v.mft)
    return compact


def seed_disks(out, fixtures, compacts):
    """Partition tables of the disk images, moved so that their partitions
    (compact volumes where there is one) lie inside the seed."""
    for image in sorted(os.listdir(fixtures)):
        path = os.path.join(fixtures, image)
        if not image.endswith(".img"):
            continue
        with open(path, "rb") as f:
            head = f.read(34 * 512)
        base = image[:-4]
        if head[512:520] == b"EFI PART":
            seed_gpt(out, base, path, head, compacts)
        elif head[510:512] == b"\x55\xaa" and head[3:11] not in (b"NTFS    ",):
            seed_mbr(out, base, path, head, compacts)


def volume_at(path, base, start, compacts, fixtures_volume_bytes):
    key = f"{base}-{start}"
    if key in compacts:
        return compacts[key]
    # Not NTFS: the first 64 KiB of the volume (FAT boot sector, FATs).
    with open(path, "rb") as f:
        f.seek(start * 512)
        return f.read(fixtures_volume_bytes)


def seed_mbr(out, base, path, head, compacts):
    sector = bytearray(head[:512])
    disk = bytearray()
    lba = 64
    volumes = []
    for i in range(4):
        e = 0x1BE + 16 * i
        kind, first, count = sector[e + 4], u32(sector, e + 8), u32(sector, e + 12)
        if kind == 0 or count == 0:
            continue
        data = volume_at(path, base, first, compacts, 64 * 1024)
        sectors = -(-len(data) // 512)
        struct.pack_into("<II", sector, e + 8, lba, sectors)
        volumes.append((lba, data))
        lba += sectors + 8
    disk = bytearray(lba * 512)
    disk[:512] = sector
    for at, data in volumes:
        disk[at * 512:at * 512 + len(data)] = data
    write(out, "disk_image_backend", f"{base}-compact", bytes(disk))
    table_only = bytearray(disk)
    for at, data in volumes:
        table_only[at * 512:at * 512 + len(data)] = b"\0" * len(data)
    write(out, "partition_table", f"{base}", bytes(table_only[:max(4096, lba * 512)]))
    for at, data in volumes:
        write(out, "boot_sector", f"{base}-{at}", data[:64 * 1024])


def seed_gpt(out, base, path, head, compacts):
    header = bytearray(head[512:1024])
    entries_lba, count, size = u64(header, 72), u32(header, 80), u32(header, 84)
    with open(path, "rb") as f:
        f.seek(entries_lba * 512)
        entries = bytearray(f.read(count * size))
    lba = 64
    volumes = []
    for i in range(count):
        e = i * size
        if entries[e:e + 16] == b"\0" * 16:
            continue
        first, last = u64(entries, e + 32), u64(entries, e + 40)
        data = volume_at(path, base, first, compacts, 4096)
        sectors = -(-len(data) // 512)
        struct.pack_into("<QQ", entries, e + 32, lba, lba + sectors - 1)
        volumes.append((lba, data))
        lba += sectors + 8
    struct.pack_into("<Q", header, 72, 2)
    total = lba + 34  # room for the backup table that a GPT keeps at the end
    disk = bytearray(total * 512)
    disk[:512] = head[:512]
    disk[512:1024] = header
    disk[1024:1024 + len(entries)] = entries
    for at, data in volumes:
        disk[at * 512:at * 512 + len(data)] = data
    write(out, "disk_image_backend", f"{base}-compact", bytes(disk))
    table_only = bytearray(disk)
    for at, data in volumes:
        table_only[at * 512:at * 512 + len(data)] = b"\0" * len(data)
    write(out, "partition_table", base, bytes(table_only))
    # The same table laid out for 4096-byte sectors: header at byte 4096,
    # entries from LBA 2, partitions at LBAs in 4096-byte units.
    big = bytearray(max(len(disk), 8192 + len(entries)) + 4096 * 8)
    big[:512] = head[:512]
    header4k = bytearray(header)
    struct.pack_into("<Q", header4k, 72, 2)
    big[4096:4096 + 512] = header4k
    entries4k = bytearray(entries)
    for i in range(count):
        e = i * size
        if entries4k[e:e + 16] == b"\0" * 16:
            continue
        first, last = u64(entries4k, e + 32), u64(entries4k, e + 40)
        struct.pack_into("<QQ", entries4k, e + 32, 8 + i, 8 + i)
    big[8192:8192 + len(entries4k)] = entries4k
    write(out, "partition_table", f"{base}-4k", bytes(big))


def seed_logical_chain(out):
    """An MBR with an extended partition and a chain of three logical ones."""
    if shutil.which("sfdisk") is None:
        return
    with tempfile.TemporaryDirectory() as work:
        disk = os.path.join(work, "logical.img")
        with open(disk, "wb") as f:
            f.truncate(256 * 1024)
        layout = ("label: dos\nunit: sectors\n"
                  "start=8, size=32, type=7\n"
                  "start=48, size=400, type=5\n"
                  "start=56, size=32, type=7\n"
                  "start=104, size=32, type=c\n"
                  "start=152, size=32, type=83\n")
        result = subprocess.run(["sfdisk", "--no-reread", "--no-tell-kernel", "-q", disk],
                                input=layout, text=True, capture_output=True)
        if result.returncode != 0:
            return
        with open(disk, "rb") as f:
            write(out, "partition_table", "mbr-logical", f.read())


def seed_small_fat(out):
    """Small FAT12 and FAT16 volumes with a label, made by mkfs.vfat, and a
    small exFAT volume by mkfs.exfat when it is there."""
    with tempfile.TemporaryDirectory() as work:
        for name, kib, options in (("fat12", 256, ["-F", "12"]), ("fat16", 4200, ["-F", "16"])):
            image = os.path.join(work, name)
            if shutil.which("mkfs.vfat") is None:
                break
            with open(image, "wb") as f:
                f.truncate(kib * 1024)
            if subprocess.run(["mkfs.vfat", *options, "-s", "1", "-n", "KESTROW", image],
                              capture_output=True).returncode == 0:
                with open(image, "rb") as f:
                    # FAT12 whole, so that its bitmap is read; FAT16 up to
                    # past its root directory.
                    write(out, "boot_sector", name, f.read(256 * 1024 if kib <= 256 else 64 * 1024))
        if shutil.which("mkfs.exfat"):
            image = os.path.join(work, "exfat")
            with open(image, "wb") as f:
                f.truncate(4 * 1024 * 1024)
            if subprocess.run(["mkfs.exfat", "-L", "KESTROW", image],
                              capture_output=True).returncode == 0:
                with open(image, "rb") as f:
                    write(out, "boot_sector", "exfat", f.read(64 * 1024))


def seed_hand_made_run_lists(out):
    """Diagnostics on, maxClusters 2^20, then run bytes: a plain run, a
    sparse run, a negative offset."""
    prefix = b"\x01" + struct.pack("<Q", 1 << 20)
    write(out, "runlist_decode", "one-run", prefix + bytes([0x21, 0x18, 0x34, 0x56, 0x00]))
    write(out, "runlist_decode", "sparse", prefix + bytes([0x01, 0x10, 0x21, 0x08, 0x00, 0x20, 0x00]))
    write(out, "runlist_decode", "negative",
          prefix + bytes([0x21, 0x10, 0x00, 0x10, 0x11, 0x08, 0xF0, 0x00]))


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    fixtures, out = sys.argv[1], sys.argv[2]
    compacts = {}
    if os.path.isdir(fixtures):
        for name, v in ntfs_volumes(fixtures):
            seed_records(out, name, v)
            seed_run_lists(out, name, v)
            seed_index_blocks(out, name, v)
            compacts[name] = seed_volumes(out, name, v)
        seed_disks(out, fixtures, compacts)
    seed_hand_made_run_lists(out)
    seed_logical_chain(out)
    seed_small_fat(out)
    # The whole stack reads the same disks as the backend target.
    backend = os.path.join(out, "disk_image_backend")
    if os.path.isdir(backend):
        shutil.copytree(backend, os.path.join(out, "master_file_table"))


if __name__ == "__main__":
    main()
