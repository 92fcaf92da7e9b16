#include "ledger.h"

#include <cstdlib>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace macsim::ledger {

namespace {

struct Entry {
    std::string name;
    long references = 1;
    bool dead = false;
    bool forEver = false;
    std::shared_ptr<Body> body;
};

struct Book {
    std::mutex mutex;
    std::unordered_map<const void*, Entry> objects;
    std::unordered_map<const void*, Entry> blocks;
    std::vector<std::string> faults;

    Entry* object(const void* address)
    {
        const auto found = objects.find(address);
        return found != objects.end() ? &found->second : nullptr;
    }
    Entry* block(const void* address)
    {
        const auto found = blocks.find(address);
        return found != blocks.end() ? &found->second : nullptr;
    }
};

/// Never destroyed: threads of the simulated system may outlive the statics.
Book& book()
{
    static auto* instance = new Book;
    return *instance;
}

constexpr auto blockName = "block";

Entry newEntry(const char* name)
{
    Entry entry;
    entry.name = name;
    return entry;
}

bool dropReference(Book& in, Entry* entry, const std::string& what)
{
    if (!entry || entry->dead) {
        in.faults.push_back("released once too often: " + (entry ? entry->name : what));
        return false;
    }
    return --entry->references == 0 && !entry->forEver;
}

}

void fault(const std::string& text)
{
    const std::scoped_lock lock(book().mutex);
    book().faults.push_back(text);
}

void born(const void* object, const char* className)
{
    const std::scoped_lock lock(book().mutex);
    book().objects[object] = newEntry(className);
}

void bornForever(const void* object, const char* className)
{
    const std::scoped_lock lock(book().mutex);
    Entry entry = newEntry(className);
    entry.forEver = true;
    book().objects[object] = std::move(entry);
}

void retain(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    Entry* entry = book().object(object);
    if (!entry || entry->dead)
        book().faults.push_back("retained when it was gone: " + (entry ? entry->name : std::string("no object")));
    else
        ++entry->references;
}

bool retainIfAlive(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    Entry* entry = book().object(object);
    if (!entry || entry->dead || entry->references < 1)
        return false;
    ++entry->references;
    return true;
}

bool release(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    return dropReference(book(), book().object(object), "no object");
}

void gone(const void* object)
{
    std::shared_ptr<Body> body;
    {
        const std::scoped_lock lock(book().mutex);
        Entry* entry = book().object(object);
        if (!entry)
            return;
        entry->dead = true;
        body = entry->body;
    }
    if (body)
        body->end(); // gives back other objects: not under the lock
}

bool isAlive(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    const Entry* entry = book().object(object);
    return entry && !entry->dead;
}

std::string className(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    const Entry* entry = book().object(object);
    return entry ? entry->name : std::string();
}

long references(const void* object)
{
    const std::scoped_lock lock(book().mutex);
    const Entry* entry = book().object(object);
    return entry && !entry->dead ? entry->references : 0;
}

std::shared_ptr<Body> body(const void* object, const std::function<std::shared_ptr<Body>()>& make)
{
    const std::scoped_lock lock(book().mutex);
    Entry* entry = book().object(object);
    if (!entry) {
        book().faults.emplace_back("used as an object: something that is none");
        return make();
    }
    if (entry->dead)
        book().faults.push_back("used when it was gone: " + entry->name);
    if (!entry->body)
        entry->body = make();
    return entry->body;
}

void blockBorn(const void* block)
{
    const std::scoped_lock lock(book().mutex);
    book().blocks[block] = newEntry(blockName);
}

void blockRetained(const void* block)
{
    const std::scoped_lock lock(book().mutex);
    Entry* entry = book().block(block);
    if (!entry || entry->dead)
        book().faults.emplace_back("a block was copied when it was gone");
    else
        ++entry->references;
}

bool blockReleased(const void* block)
{
    const std::scoped_lock lock(book().mutex);
    Entry* entry = book().block(block);
    if (!dropReference(book(), entry, blockName))
        return false;
    entry->dead = true;
    return true;
}

std::map<std::string, int> live()
{
    const std::scoped_lock lock(book().mutex);
    std::map<std::string, int> counts;
    for (const auto* list : {&book().objects, &book().blocks}) {
        for (const auto& [address, entry] : *list) {
            if (!entry.dead && !entry.forEver)
                ++counts[entry.name];
        }
    }
    return counts;
}

std::vector<std::string> faults()
{
    const std::scoped_lock lock(book().mutex);
    return book().faults;
}

void reset(const std::function<void(const void*)>& freeObject)
{
    std::vector<std::shared_ptr<Body>> bodies; // destroyed after the lock
    const std::scoped_lock lock(book().mutex);
    const auto bury = [&bodies](auto& list, const auto& freeOne) {
        for (auto entry = list.begin(); entry != list.end();) {
            if (entry->second.forEver) {
                ++entry;
                continue;
            }
            bodies.push_back(std::move(entry->second.body));
            if (entry->second.dead)
                freeOne(entry->first);
            entry = list.erase(entry);
        }
    };
    bury(book().objects, freeObject);
    bury(book().blocks, [](const void* block) { std::free(const_cast<void*>(block)); });
    book().faults.clear();
}

}
