// The blocks runtime: what the compiler calls for ^{ ... }. A copy on the heap retains the objects that the block
// captured, as on macOS. The layouts are those of clang's block ABI.
#include "blocks.h"
#include "ledger.h"

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr int onHeap = 1 << 24;
constexpr int hasHelpers = 1 << 25;
constexpr int isGlobal = 1 << 28;

constexpr int fieldIsObject = 3;
constexpr int fieldIsBlock = 7;
constexpr int fieldIsVariable = 8;
constexpr int fieldIsWeak = 16;

struct Descriptor {
    std::uintptr_t reserved;
    std::uintptr_t size;
    void (*copy)(void* to, const void* from); // these two only with hasHelpers
    void (*dispose)(const void* block);
};

struct Block {
    void* isa;
    int flags;
    int reserved;
    void (*invoke)(void*);
    const Descriptor* descriptor;
};

/// A __block variable.
struct Variable {
    void* isa;
    Variable* forwarding;
    int flags;
    int size;
    void (*keep)(Variable* to, Variable* from); // these two only with hasHelpers
    void (*dispose)(Variable* variable);
};

std::atomic<macsim::ObjectCall> retainObject{nullptr};
std::atomic<macsim::ObjectCall> releaseObject{nullptr};

void invokedWhenGone(void*)
{
    macsim::ledger::fault("a block was called when it was gone");
}

/// The variable on the heap, with one reference more. The first copy moves it there; its frame keeps a reference too.
Variable* shareVariable(Variable* variable)
{
    Variable* shared = variable->forwarding;
    if (shared->flags & onHeap) {
        macsim::ledger::blockRetained(shared);
        return shared;
    }
    auto* copy = static_cast<Variable*>(std::malloc(std::size_t(variable->size)));
    std::memcpy(copy, variable, std::size_t(variable->size));
    copy->flags |= onHeap;
    copy->forwarding = copy;
    variable->forwarding = copy;
    macsim::ledger::blockBorn(copy);
    macsim::ledger::blockRetained(copy);
    if (copy->flags & hasHelpers)
        copy->keep(copy, variable);
    return copy;
}

void dropVariable(Variable* variable)
{
    Variable* shared = variable->forwarding;
    if (!(shared->flags & onHeap) || !macsim::ledger::blockReleased(shared))
        return;
    if (shared->flags & hasHelpers)
        shared->dispose(shared);
}

}

extern "C" {

// The classes of blocks: only their addresses count.
void* _NSConcreteStackBlock[32];
void* _NSConcreteGlobalBlock[32];
void* _NSConcreteMallocBlock[32];

void* _Block_copy(const void* address)
{
    auto* block = static_cast<Block*>(const_cast<void*>(address));
    if (!block || (block->flags & isGlobal))
        return block;
    if (block->flags & onHeap) {
        macsim::ledger::blockRetained(block);
        return block;
    }
    const std::size_t size = block->descriptor->size;
    auto* copy = static_cast<Block*>(std::malloc(size));
    std::memcpy(copy, block, size);
    copy->flags |= onHeap;
    copy->isa = _NSConcreteMallocBlock;
    macsim::ledger::blockBorn(copy);
    if (copy->flags & hasHelpers)
        copy->descriptor->copy(copy, block);
    return copy;
}

void _Block_release(const void* address)
{
    auto* block = static_cast<Block*>(const_cast<void*>(address));
    if (!block || (block->flags & isGlobal) || !(block->flags & onHeap) || !macsim::ledger::blockReleased(block))
        return;
    if (block->flags & hasHelpers)
        block->descriptor->dispose(block);
    block->invoke = invokedWhenGone;
}

void _Block_object_assign(void* place, const void* captured, const int flags)
{
    const void* value = captured;
    switch (flags & ~fieldIsWeak) {
    case fieldIsObject:
        if (captured)
            retainObject.load()(captured);
        break;
    case fieldIsBlock:
        value = _Block_copy(captured);
        break;
    case fieldIsVariable:
        value = shareVariable(static_cast<Variable*>(const_cast<void*>(captured)));
        break;
    default: // an object in a __block variable is not retained
        break;
    }
    std::memcpy(place, &value, sizeof(value));
}

void _Block_object_dispose(const void* captured, const int flags)
{
    switch (flags & ~fieldIsWeak) {
    case fieldIsObject:
        if (captured)
            releaseObject.load()(captured);
        break;
    case fieldIsBlock:
        _Block_release(captured);
        break;
    case fieldIsVariable:
        dropVariable(static_cast<Variable*>(const_cast<void*>(captured)));
        break;
    default:
        break;
    }
}
}

void macsim::countCapturedObjects(ObjectCall retain, ObjectCall release)
{
    retainObject = retain;
    releaseObject = release;
}
