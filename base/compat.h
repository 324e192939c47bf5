// Platform layer: shared libraries, read-only file mappings, and three small
// helpers. On POSIX these are the system's own functions; on Windows
// compat_win.cpp supplies the same names.
#pragma once
