// FFmpeg's own protocol for files, with a descriptor that is open already: the same buffer, the same errors.
#include "outputfile.h"

#include "averror.h"
#include "descriptor.h"
#include "privatefile.h"

#include <QDebug>
#include <QDir>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr int bufferBytes = 256 * 1024;

struct File {
    Descriptor descriptor;
    int64_t fragmentStart = 0; // where the last write of a list began
};

/// FFmpeg keeps a pointer for us.
File& fileOf(void* opaque)
{
    return *static_cast<File*>(opaque);
}

/// All of it or an error.
int writeAll(int descriptor, const uint8_t* bytes, int size)
{
    for (int written = 0; written < size;) {
        const ssize_t taken = ::write(descriptor, bytes + written, std::size_t(size - written));
        if (taken > 0)
            written += int(taken);
        else if (taken == 0)
            return AVERROR(EIO);
        else if (errno != EINTR)
            return AVERROR(errno);
    }
    return size;
}

/// Size and type of an MP4's box.
constexpr int boxHeadBytes = 8;

/// Whether an MP4's fragment begins there, with the list of its images.
bool beginsFragment(const uint8_t* bytes, int size)
{
    return size > boxHeadBytes && std::memcmp(bytes + 4, "moof", 4) == 0;
}

/// The system may stop a write anywhere when the process is killed, and FFmpeg's demuxer refuses a whole file for a
/// list that is torn. So the list gets its head last: until then zeros stand there, and everybody passes over what
/// follows.
int writeHeadLast(File& file, const uint8_t* bytes, int size)
{
    const int descriptor = file.descriptor.number();
    const off_t start = ::lseek(descriptor, 0, SEEK_CUR);
    file.fragmentStart = std::max<int64_t>(start, 0);
    if (start < 0 || ::lseek(descriptor, start + boxHeadBytes, SEEK_SET) < 0)
        return AVERROR(errno);
    const int status = writeAll(descriptor, bytes + boxHeadBytes, size - boxHeadBytes);
    if (status < 0)
        return status;
    ssize_t taken = 0;
    do {
        taken = ::pwrite(descriptor, bytes, boxHeadBytes, start);
    } while (taken < 0 && errno == EINTR);
    if (taken < 0)
        return AVERROR(errno);
    return taken == boxHeadBytes ? size : AVERROR(EIO);
}

/// What the bytes are is constant from FFmpeg 7 on.
template <typename Byte>
int writeBytes(void* opaque, Byte* bytes, int size)
{
    File& file = fileOf(opaque);
    return beginsFragment(bytes, size) ? writeHeadLast(file, bytes, size)
                                       : writeAll(file.descriptor.number(), bytes, size);
}

int64_t seek(void* opaque, int64_t offset, int whence)
{
    const int descriptor = fileOf(opaque).descriptor.number();
    if (whence & AVSEEK_SIZE) {
        struct stat status = {};
        return ::fstat(descriptor, &status) == 0 ? int64_t(status.st_size) : int64_t(AVERROR(errno));
    }
    const off_t place = ::lseek(descriptor, off_t(offset), whence & ~AVSEEK_FORCE);
    return place >= 0 ? int64_t(place) : int64_t(AVERROR(errno));
}

AVIOContext* makeContext(File& file)
{
    auto* const buffer = static_cast<unsigned char*>(av_malloc(bufferBytes));
    if (!buffer)
        return nullptr;
    constexpr int forWriting = 1;
    AVIOContext* context = avio_alloc_context(buffer, bufferBytes, forWriting, &file, nullptr, &writeBytes, &seek);
    if (!context) {
        av_free(buffer);
        return nullptr;
    }
    context->min_packet_size = context->max_packet_size = bufferBytes;
    return context;
}

}

int outputfile::open(AVFormatContext& container, const QString& path)
{
    const privatefile::Opened opened = privatefile::openEmpty(QDir::toNativeSeparators(path).toUtf8());
    if (opened.refusal)
        qWarning() << "Recorder does not write to the file that is there:" << path << opened.refusal;
    Descriptor descriptor(opened.descriptor);
    if (!descriptor.isValid())
        return AVERROR(opened.error);
    std::unique_ptr<File> file(new (std::nothrow) File{std::move(descriptor)});
    container.pb = file ? makeContext(*file) : nullptr;
    if (!container.pb)
        return AVERROR(ENOMEM);
    [[maybe_unused]] const File* const kept = file.release(); // close() finds it in the context
    container.flags |= AVFMT_FLAG_CUSTOM_IO;
    return 0;
}

int64_t outputfile::lastFragmentStart(const AVFormatContext& container)
{
    return fileOf(container.pb->opaque).fragmentStart;
}

void outputfile::returnTo(AVFormatContext& container, int64_t place)
{
    File& file = fileOf(container.pb->opaque);
    file.fragmentStart = std::min(file.fragmentStart, place);
    container.pb->error = 0;
    avio_seek(container.pb, place, SEEK_SET);
    // What cannot be cut off is written over, as far as there is something to write.
    [[maybe_unused]] const int status = ::ftruncate(file.descriptor.number(), off_t(place));
}

void outputfile::close(AVFormatContext& container, bool isTold)
{
    if (!container.pb)
        return;
    avio_flush(container.pb);
    // A file of a network, or one that has its quota, may tell here only what it did not take.
    const std::unique_ptr<File> file(&fileOf(container.pb->opaque));
    const int status = ::close(file->descriptor.release()) == 0 ? 0 : AVERROR(errno);
    av_freep(&container.pb->buffer);
    avio_context_free(&container.pb);
    if (status < 0 && !isTold)
        qWarning() << "Output file was closed with an error; what was written last may be missing:"
                   << avErrorString(status);
}
