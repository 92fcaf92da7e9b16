// What the classes of the simulated system share: counted references, and makers of small objects. Makers give
// autoreleased objects, as the system's getters may: who asks without a pool has a fault.
#pragma once

#import <Foundation/Foundation.h>

#include "ledger.h"
#include "macsim.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace macsim {

/// One counted reference that the system holds.
class Strong {
public:
    explicit Strong(id object) : object_([object retain]) { }
    Strong(const Strong& other) : object_([other.object_ retain]) { }
    Strong(Strong&& other) noexcept : object_(std::exchange(other.object_, nil)) { }
    Strong& operator=(Strong other) noexcept
    {
        std::swap(object_, other.object_);
        return *this;
    }
    ~Strong() { [object_ release]; }

    /// Takes over the reference of a new object.
    static Strong adopt(id object)
    {
        Strong taken(nil);
        taken.object_ = object;
        return taken;
    }

    id get() const { return object_; }

private:
    id object_ = nil;
};

using ledger::bodyOf;

struct ArrayBody : ledger::Body {
    std::vector<Strong> items;
    void end() override { items.clear(); }
};

/// Spoils its text at the end: nobody may read it later.
struct TextBody : ledger::Body {
    std::string text;
    void end() override { text.assign(text.size(), '#'); }
};

/// A temporary object, as any call of the system's may leave it to its caller's pool.
inline void leaveToPool()
{
    [[[NSObject alloc] init] autorelease];
}

NSString* makeText(const std::optional<std::string>& text); ///< nil for nothing
NSArray* makeArray(std::vector<Strong> items);
NSError* makeError(const Outcome& outcome); ///< nil for success

}
