#!/usr/bin/env python3
"""python_cache: digests words slowly, and remembers the digests from one run to the next in an
indexed cache. Prints for each word whether its digest was cached, then all entries.

  python_cache.py [--library FILE] WORD...
"""

import os
import sys

import qvcache

ROUNDS = 20000


def digest_of(word):
    """FNV-1a of the word, again and again: something worth remembering."""
    digest = 14695981039346656037
    for byte in word * ROUNDS:
        digest = (digest ^ byte) * 1099511628211 % 2**64
    return b"%016x" % digest


def text_of(word):
    return word.decode(errors="replace")


def look_up(cache, word):
    atoms = cache.get(word)
    if atoms is not None:
        return "cached", atoms[0]
    digest = digest_of(word)
    cache.add(word, [digest, b"%d" % ROUNDS])
    return "computed", digest


def run(library, words):
    # Without a root: that of QV_CACHE_STORE_ROOT.
    with qvcache.Cache(library, "indexed", "digests") as cache:
        for word in words:
            how, digest = look_up(cache, word)
            print(text_of(word), how, digest.decode())
        cache.flush()  # from here on, every process finds them
        print(len(cache), "entries")
        for word, (digest, rounds) in cache.items():
            print(f"  {text_of(word)} {digest.decode()} after {rounds.decode()} rounds")


def main(arguments):
    path = None
    if arguments[:1] == ["--library"]:
        path, arguments = "".join(arguments[1:2]), arguments[2:]
    if not arguments:
        print("usage: python_cache.py [--library FILE] WORD...", file=sys.stderr)
        return 2
    try:
        run(qvcache.load(path), [os.fsencode(word) for word in arguments])
    except (OSError, qvcache.Error) as error:
        print(f"python_cache: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
