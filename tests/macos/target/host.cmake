# Read at the end of project(). Linux's own headers must not be found: what is only there would pass for being on the
# Mac. CMake leaves out of the search path what it takes for the compiler's own folders.
list(APPEND CMAKE_CXX_IMPLICIT_INCLUDE_DIRECTORIES /usr/include /usr/include/x86_64-linux-gnu)

# Qt asks for it on a Mac; nothing here is drawn with it.
add_library(WrapOpenGL::WrapOpenGL INTERFACE IMPORTED)
