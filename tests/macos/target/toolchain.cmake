# Compiles this project for the Mac on Debian: clang, the public headers of Darwin and libc++ (ORVANTIS_DARWIN_HEADERS
# names the folder that scripts/mac-check fetched), the declarations in tests/macos/platform_decl in the frameworks'
# place, and Qt's and FFmpeg's headers as they are here. Objects and archives only: there is nothing to link with.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR arm64)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ORVANTIS_DARWIN_HEADERS ORVANTIS_FFMPEG_HEADERS)

set(CMAKE_CXX_COMPILER clang++-14)
set(CMAKE_CXX_COMPILER_TARGET arm64-apple-macos13)
set(CMAKE_OSX_SYSROOT "")
set(CMAKE_AR llvm-ar-14 CACHE FILEPATH "")
set(CMAKE_RANLIB llvm-ranlib-14 CACHE FILEPATH "")
set(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool-14 CACHE FILEPATH "")

set(libc "${ORVANTIS_DARWIN_HEADERS}/libc/include")
set(headers
    "${ORVANTIS_DARWIN_HEADERS}/libcxx/include" "${ORVANTIS_DARWIN_HEADERS}/libcxxabi/include"
    "${libc}/aarch64-macos.13-none" "${libc}/any-macos.13-any" "${libc}/any-macos-any"
    "${CMAKE_CURRENT_LIST_DIR}/../platform_decl" "${ORVANTIS_FFMPEG_HEADERS}")
list(TRANSFORM headers PREPEND "-isystem ")
list(JOIN headers " " header_flags)
# libc++ comes without its generated site configuration.
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -nostdinc++ -nostdlibinc ${header_flags} \
-D_LIBCPP_DISABLE_VISIBILITY_ANNOTATIONS -D_LIBCXXABI_DISABLE_VISIBILITY_ANNOTATIONS \
-D_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS -D_LIBCPP_ABI_VERSION=1 -D_LIBCPP_ABI_NAMESPACE=__1 \
-DORVANTIS_PLATFORM_DECLARATIONS -Wunguarded-availability -Wnullability -Wobjc-method-access")

# Where Debian keeps Qt's packages.
set(CMAKE_LIBRARY_ARCHITECTURE x86_64-linux-gnu)
list(APPEND CMAKE_PREFIX_PATH /usr)
set(QT_HOST_PATH /usr)
