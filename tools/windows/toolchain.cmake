# Builds for 64-bit Windows on Debian. python_sdk.py has to have made its folder, which is
# KESTRIX_PYTHON_SDK, before.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)

# This machine's own headers and libraries stay out.
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${KESTRIX_PYTHON_SDK})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(Python_EXECUTABLE /usr/bin/python3)
set(Python_INCLUDE_DIR ${KESTRIX_PYTHON_SDK}/include/python3.11)
set(Python_LIBRARY ${KESTRIX_PYTHON_SDK}/libpython311.a)
set(PYTHON_MODULE_EXTENSION .cp311-win_amd64.pyd)
set(pybind11_DIR ${KESTRIX_PYTHON_SDK}/lib/cmake/pybind11)
