"""The package's one exception class (kept apart so the compiled module can import it)."""


class Error(Exception):
    """A failed call. ``code`` is the library's return code, or None when the failure was
    found before the library was asked (a closed index, a path with no index behind it)."""

    def __init__(self, message, code=None):
        super().__init__(message)
        self.code = code
