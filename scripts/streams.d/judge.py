#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""judge.py <stream> <folder>

Judges what two recorders have left in the folder of one stream: what was written has to be what the
index names, byte for byte, what is missing has to be counted, and the one that waits for key frames
has to have one at its beginning and behind each gap, and a file that decodes. Prints a row.
"""
import pathlib
import re
import subprocess
import sys


def index_of(path):
    """Pairs of a frame's number and (bytes, key)."""
    lines = (line.split() for line in path.read_text().splitlines())
    return [(int(number), (int(size), int(key))) for _, number, size, key, *_ in lines]


def figure(log, name):
    return int(re.findall(rf" {name}=(\d+)", log)[-1])


def named(source, sent, written):
    """What an index names, cut out of the source: its frames lie there in the order of their numbers."""
    places, at = {}, 0
    for number, (size, _) in sent:
        places[number] = (at, at + size)
        at += size
    return b"".join(source[slice(*places[number])] for number, _ in written)


def gaps(written):
    return [i for i in range(1, len(written)) if written[i][0] != written[i - 1][0] + 1]


def decodes(path, codec):
    run = subprocess.run(
        ["ffmpeg", "-v", "error", "-nostdin", "-f", codec, "-i", path, "-f", "null", "-"],
        capture_output=True,
        check=False,
    )
    return run.returncode == 0 and not run.stderr


def flaws(stream, folder, sent, all_of_it, from_keys, log):
    source = stream.read_bytes()
    if sum(size for _, (size, _) in sent) != len(source):
        yield "what was sent is not the source"
    for name, written in (("RECODER", all_of_it), ("PLAYER", from_keys)):
        if (folder / name).read_bytes() != named(source, sent, written):
            yield f"the file of {name} is not what its index names"
        if any(entry != dict(sent).get(number) for number, entry in written):
            yield f"{name} has a frame that was sent otherwise"
    missing = sum(all_of_it[i][0] - all_of_it[i - 1][0] - 1 for i in gaps(all_of_it))
    if missing != figure(log, "lost") + figure(log, "dropped"):
        yield f"{missing} frames are missing and not counted"
    if len(all_of_it) < len(sent) * 9 // 10:
        yield f"only {len(all_of_it)} of {len(sent)} frames came"
    for i in [0] + gaps(from_keys):
        if from_keys and from_keys[i][1][1] == 0:
            yield f"the player has no key frame at frame {from_keys[i][0]}"
    codec = "h264" if stream.suffix == ".h264" else "hevc"
    if from_keys and not gaps(from_keys) and decodes(stream, codec):
        if not decodes(folder / "PLAYER", codec):
            yield "the source decodes, and the file of the player does not"


def main():
    stream, folder = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2])
    sent, all_of_it, from_keys = (
        index_of(folder / f"{name}.index") for name in ("sent", "RECODER", "PLAYER")
    )
    log = (folder / "RECODER.log").read_text()
    too_large = figure((folder / "publish.log").read_text(), "too_large")
    found = list(flaws(stream, folder, sent, all_of_it, from_keys, log))
    print(
        f"| {stream.name} | {len(sent)} | {too_large} | {len(all_of_it)} | {figure(log, 'lost')}"
        f" | {len(from_keys)} | {'; '.join(found) or 'ok'} |"
    )
    sys.exit(1 if found else 0)


main()
