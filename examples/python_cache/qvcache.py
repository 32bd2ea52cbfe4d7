"""The cache of QVUtil, through ctypes alone. Copy this file into your program."""

import ctypes
import ctypes.util
from ctypes import POINTER, byref, c_char_p, c_int, c_size_t, c_uint, c_uint64, c_void_p

READ_ONLY = 1
MUST_EXIST = 2

# What qv_cache_each calls: key, its size, value, closure.
_CALLBACK = ctypes.CFUNCTYPE(c_int, c_void_p, c_size_t, c_void_p, c_void_p)

# Without the types, ctypes would cut pointers and sizes down to an int.
_FUNCTIONS = {
    "qv_cache_open": (c_void_p, [c_char_p, c_char_p, c_char_p, c_uint]),
    "qv_cache_get": (c_void_p, [c_void_p, c_char_p, c_size_t]),
    "qv_cache_atoms": (c_size_t, [c_void_p]),
    "qv_cache_atom": (c_void_p, [c_void_p, c_size_t, POINTER(c_size_t)]),
    "qv_cache_add": (
        c_int,
        [c_void_p, c_char_p, c_size_t, POINTER(c_char_p), POINTER(c_size_t), c_size_t],
    ),
    "qv_cache_flush": (c_int, [c_void_p]),
    "qv_cache_prefetch": (None, [c_void_p, POINTER(c_char_p), POINTER(c_size_t), c_size_t]),
    "qv_cache_size": (c_uint64, [c_void_p]),
    "qv_cache_each": (c_int, [c_void_p, _CALLBACK, c_void_p]),
    "qv_cache_close": (c_int, [c_void_p]),
    "qv_cache_error_text": (c_char_p, [c_int]),
}


def load(path=None):
    """Returns the library at `path`, or the installed one."""
    path = path or ctypes.util.find_library("QVUtil")
    if path is None:
        raise OSError("there is no libQVUtil.so")
    library = ctypes.CDLL(path, use_errno=True)
    for name, (result, arguments) in _FUNCTIONS.items():
        function = getattr(library, name)
        function.restype = result
        function.argtypes = arguments
    return library


class Error(Exception):
    """A call failed. `errno` is its number."""

    def __init__(self, library, errno):
        super().__init__(library.qv_cache_error_text(errno).decode())
        self.errno = errno


def _strings(items):
    """The arguments of C for a list of bytes: their addresses, their sizes, their number."""
    return (c_char_p * len(items))(*items), (c_size_t * len(items))(*map(len, items)), len(items)


class Cache:
    """A map from bytes to lists of bytes. Use it in a with statement, which closes it."""

    def __init__(self, library, kind, name, root=None, flags=0):
        self._library = library
        root = None if root is None else root.encode()
        self._cache = library.qv_cache_open(kind.encode(), root, name.encode(), flags)
        if not self._cache:
            self._fail()

    def __enter__(self):
        return self

    def __exit__(self, kind, *_):
        try:
            self.close()
        except Error:
            if kind is None:  # otherwise the first failure is the one to report
                raise

    def __len__(self):
        return self._library.qv_cache_size(self._cache)

    def get(self, key):
        """The atoms of `key`, or None."""
        value = self._library.qv_cache_get(self._cache, key, len(key))
        if not value and ctypes.get_errno() != 0:  # 0: there is no such entry
            self._fail()
        return self._atoms(value) if value else None

    def add(self, key, atoms):
        """Whether the entry was added; its key may be there already."""
        return self._check(self._library.qv_cache_add(self._cache, key, len(key), *_strings(atoms))) == 1

    def prefetch(self, keys):
        """A hint that these keys will be looked up."""
        self._library.qv_cache_prefetch(self._cache, *_strings(keys))

    def flush(self):
        """Stores what was added."""
        self._check(self._library.qv_cache_flush(self._cache))

    def items(self):
        """A list of all keys with their atoms."""
        found = []

        def visit(key, size, value, _):
            found.append((ctypes.string_at(key, size), self._atoms(value)))
            return 0

        self._check(self._library.qv_cache_each(self._cache, _CALLBACK(visit), None))
        return found

    def close(self):
        """Stores what was added and frees the cache, also when it fails."""
        cache, self._cache = self._cache, None
        self._check(self._library.qv_cache_close(cache))

    def _atoms(self, value):
        atoms = []
        size = c_size_t()
        for index in range(self._library.qv_cache_atoms(value)):
            atom = self._library.qv_cache_atom(value, index, byref(size))
            atoms.append(ctypes.string_at(atom, size.value))
        return atoms

    def _check(self, result):
        if result == -1:
            self._fail()
        return result

    def _fail(self):
        raise Error(self._library, ctypes.get_errno())
