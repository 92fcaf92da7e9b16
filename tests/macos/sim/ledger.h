// Counts the references to every object and block of the simulated system. Objects that are gone keep their memory
// until the next reset(), so that a late use is a line in the list of faults and not undefined behaviour. Any thread.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace macsim::ledger {

/// What an object holds. One class of them for each class of the system.
class Body {
public:
    Body() = default;
    virtual ~Body() = default;
    Body(const Body&) = delete;
    Body& operator=(const Body&) = delete;

    /// The last reference is gone: gives back the parts, and spoils memory that was handed out.
    virtual void end() { }
};

/// Adds to the list of faults something the system would crash on, or that is never right.
void fault(const std::string& text);

void born(const void* object, const char* className);
/// An object that the system keeps for ever: its references are not counted.
void bornForever(const void* object, const char* className);
void retain(const void* object);
/// False when it is gone, or going.
bool retainIfAlive(const void* object);
/// True when the last reference went: the caller then ends the object and says gone().
bool release(const void* object);
/// Ends the body. Any later use of the object is a fault.
void gone(const void* object);
bool isAlive(const void* object);
/// The name of its class; empty for what is no object.
std::string className(const void* object);
long references(const void* object);

std::shared_ptr<Body> body(const void* object, const std::function<std::shared_ptr<Body>()>& make);

/// The object's body, made at the first call. For an object that is gone it is the spoilt one, and a fault.
template <typename B>
std::shared_ptr<B> bodyOf(const void* object)
{
    return std::static_pointer_cast<B>(body(object, [] { return std::make_shared<B>(); }));
}

// ---- blocks on the heap, counted with the objects ---------------------------------------------------------------

void blockBorn(const void* block);
void blockRetained(const void* block);
bool blockReleased(const void* block); ///< true when that was the last reference

// ---- the result -------------------------------------------------------------------------------------------------

std::map<std::string, int> live(); ///< class name to objects that are not gone; blocks are "block"
std::vector<std::string> faults();
/// Forgets everything but what lives for ever. The memory of objects that are gone is freed.
void reset(const std::function<void(const void*)>& freeObject);

}
