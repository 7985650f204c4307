#!/usr/bin/env python3
"""Writes the seed corpora of fuzz/corpus/ from the wire corpus and the test structures.

Run from the repository's top folder after tests/wire/ or the tests' structures change:
    python3 fuzz/make_seeds.py
Files named regression-* are written by hand and left alone; seed-* files are rewritten.
"""

import pathlib
import re

TOP = pathlib.Path(__file__).resolve().parent.parent
CORPUS = TOP / "fuzz" / "corpus"

# The order of assistant_support.h's kTypes and reply_fuzzer.cpp's kStatuses.
SERVICES = ["openai", "google", "deepseek", "ollama", "x", "anthropic", "alibaba"]
STATUSES = [200, 400, 401, 404, 429, 500, 503, 302]


def selector(service, chat, status):
    """The first byte of a reply input: service, exchange, status (see reply_fuzzer.cpp)."""
    return len(SERVICES) * (2 * STATUSES.index(status) + (0 if chat else 1)) + service


def stream_selector(service, cut):
    """The first byte of a stream input: service and cut (see stream_fuzzer.cpp)."""
    return len(SERVICES) * cut + service


# The cuts each stream seed is written with: whole, and pieces of 1 to 10 bytes.
STREAM_CUTS = [0, 5]


def nearest_status(status):
    if status in STATUSES:
        return status
    return 500 if status >= 500 else 400


def write(folder, name, data):
    path = CORPUS / folder / name
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(data)


def structures():
    """The JSON structures written in the tests: raw strings that open an array."""
    found = []
    for source in ["tests/qor/qor_digest_test.cpp", "tests/qor/qor_properties_test.cpp"]:
        text = (TOP / source).read_text()
        for match in re.finditer(r'R"~\((\[.*?)\)~"', text, re.S):
            found.append(match.group(1).encode())
    return found


def main():
    for folder in ["json", "digest", "reply", "stream"]:
        for old in (CORPUS / folder).glob("seed-*"):
            old.unlink()

    wire = TOP / "tests" / "wire"
    for index, service in enumerate(SERVICES):
        for path in sorted((wire / service).glob("*.json")):
            body = path.read_bytes()
            write("json", f"seed-{service}-{path.name}", body)
            name = path.stem
            if name.startswith("request"):
                continue
            if name.startswith("chat"):
                cases = [(True, 200)]
            elif name.startswith("models"):
                cases = [(False, 200)]
            else:
                match = re.match(r"error_(\d+)", name)
                status = nearest_status(int(match.group(1))) if match else 400
                cases = [(True, status), (False, status)]
            for chat, status in cases:
                kind = "chat" if chat else "listing"
                write("reply", f"seed-{service}-{kind}-{status}-{path.name}",
                      bytes([selector(index, chat, status)]) + body)

        for path in sorted((wire / service).glob("stream_*")):
            for cut in STREAM_CUTS:
                write("stream", f"seed-{service}-cut{cut}-{path.name}",
                      bytes([stream_selector(index, cut)]) + path.read_bytes())

    for number, structure in enumerate(structures()):
        write("digest", f"seed-structure-{number}.json", structure)
        write("json", f"seed-structure-{number}.json", structure)


if __name__ == "__main__":
    main()
