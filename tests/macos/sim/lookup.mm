// What the program looks up by its name: classes and functions that a system may not have. Also the locks of objects,
// which the runtime keeps where a sanitizer cannot see them.
#include "ledger.h"
#include "macsim.h"
#include "runtime.h"

#include <dlfcn.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>

namespace {

/// Never destroyed: threads of the system may outlive the statics.
struct Locks {
    std::mutex mutex;
    std::map<id, std::unique_ptr<std::recursive_mutex>> all;

    std::recursive_mutex& of(id object)
    {
        const std::scoped_lock lock(mutex);
        auto& found = all[object];
        if (!found)
            found = std::make_unique<std::recursive_mutex>();
        return *found;
    }
};

Locks& locks()
{
    static auto* instance = new Locks;
    return *instance;
}

}

extern "C" {

Class macsim_getClass(const char* name)
{
    const auto& hidden = macsim::answers().hiddenClasses;
    return std::find(hidden.begin(), hidden.end(), name) == hidden.end() ? objc_getClass(name) : nil;
}

#undef dlsym
void* macsim_dlsym(void* handle, const char* name)
{
    if (macsim::answers().noImageFunction && std::strcmp(name, "CGWindowListCreateImage") == 0)
        return nullptr;
    return dlsym(handle, name);
}

int objc_sync_enter(id object)
{
    if (!object)
        return 0;
    if (!macsim::ledger::isAlive(object))
        macsim::ledger::fault("locked when it was gone: " + macsim::ledger::className(object));
    locks().of(object).lock();
    return 0;
}

int objc_sync_exit(id object)
{
    if (object)
        locks().of(object).unlock();
    return 0;
}
}
