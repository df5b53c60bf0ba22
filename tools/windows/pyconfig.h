// What a CPython 3.11 for 64-bit Windows is configured with, as far as its headers ask. It stands
// beside Debian's headers of the same version for the cross-build: long has 32 bits there, a pointer
// 64, and everything of the interpreter comes from python311.dll.
#pragma once

#define MS_WINDOWS
#define MS_WIN32
#define MS_WIN64
#define NT_THREADS
#define PLATFORM "win32"

#define Py_ENABLE_SHARED 1
#define HAVE_DECLSPEC_DLL 1

#define SIZEOF_SHORT 2
#define SIZEOF_INT 4
#define SIZEOF_LONG 4
#define SIZEOF_LONG_LONG 8
#define SIZEOF_FLOAT 4
#define SIZEOF_DOUBLE 8
#define SIZEOF_WCHAR_T 2
#define SIZEOF_VOID_P 8
#define SIZEOF_SIZE_T 8
#define SIZEOF_HKEY 8
#define SIZEOF_OFF_T 4
#define SIZEOF_FPOS_T 8
#define SIZEOF_TIME_T 8
#define SIZEOF_PID_T 4

#define HAVE_PY_SSIZE_T 1
typedef long long Py_ssize_t;
#define PY_SSIZE_T_MAX 0x7fffffffffffffffLL
#define PY_LLONG_MIN (-0x7fffffffffffffffLL - 1)
#define PY_LLONG_MAX 0x7fffffffffffffffLL
#define PY_ULLONG_MAX 0xffffffffffffffffULL

#define STDC_HEADERS 1
#define HAVE_ERRNO_H 1
#define HAVE_STDDEF_H 1
#define HAVE_STDINT_H 1
#define HAVE_INTTYPES_H 1
#define HAVE_SYS_TYPES_H 1
#define HAVE_SYS_STAT_H 1
#define HAVE_WCHAR_H 1
#define HAVE_PROTOTYPES 1
#define HAVE_STDARG_PROTOTYPES 1

#define WITH_THREAD 1
#define WITH_DOC_STRINGS 1
#define WITH_FREELISTS 1
#define WITH_PYMALLOC 1
#define DOUBLE_IS_LITTLE_ENDIAN_IEEE754 1
