// Making, attaching and giving back shared memory.
#include "x11sharedmemory.h"

#include "descriptor.h"

#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

namespace x11 {

std::unique_ptr<SharedSegment> SharedSegment::create(
    DisplayConnection& connection, xcb_shm_seg_t id, size_t size, Kind kind)
{
    std::unique_ptr<SharedSegment> segment(new SharedSegment(connection, id, size, kind));
    const bool attached = kind == Kind::Descriptor ? segment->attachByDescriptor() : segment->attachBySystemV();
    return attached ? std::move(segment) : nullptr;
}

SharedSegment::SharedSegment(DisplayConnection& connection, xcb_shm_seg_t id, size_t size, Kind kind)
    : connection_(connection), id_(id), size_(size), kind_(kind)
{
}

SharedSegment::~SharedSegment()
{
    if (sentToServer_) {
        // Also when the server refused or has not answered: the id is used again.
        const Request<void> detaching(connection_, xcb_shm_detach_checked(connection_.xcb(), id_));
    }
    if (!data_)
        return;
    if (kind_ == Kind::Descriptor)
        ::munmap(const_cast<uchar*>(data_), size_);
    else
        ::shmdt(data_);
}

bool SharedSegment::attachByDescriptor()
{
    Descriptor descriptor(::memfd_create("window pixels", MFD_CLOEXEC));
    if (!descriptor.isValid() || ::ftruncate(descriptor.number(), off_t(size_)) != 0)
        return false;
    void* const memory = ::mmap(nullptr, size_, PROT_READ, MAP_SHARED, descriptor.number(), 0);
    if (memory == MAP_FAILED)
        return false;
    data_ = static_cast<const uchar*>(memory);
    sentToServer_ = true;
    // libxcb closes it.
    return isAttached(xcb_shm_attach_fd_checked(connection_.xcb(), id_, descriptor.release(), 0));
}

bool SharedSegment::attachBySystemV()
{
    const int segment = ::shmget(IPC_PRIVATE, size_, IPC_CREAT | 0600);
    if (segment < 0)
        return false;
    const void* memory = ::shmat(segment, nullptr, SHM_RDONLY);
    // From here on the system frees the segment with its last user, also after a crash; the server can still attach
    // it.
    ::shmctl(segment, IPC_RMID, nullptr);
    if (memory == reinterpret_cast<const void*>(-1))
        return false;
    data_ = static_cast<const uchar*>(memory);
    sentToServer_ = true;
    return isAttached(xcb_shm_attach_checked(connection_.xcb(), id_, uint32_t(segment), 0));
}

bool SharedSegment::isAttached(xcb_void_cookie_t cookie)
{
    Request<void> attaching(connection_, cookie);
    return connection_.synchronise() && attaching.succeeded();
}

}
