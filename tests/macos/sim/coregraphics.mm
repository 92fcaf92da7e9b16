// Windows, drawing and the pointer. What Core Foundation holds are the same counted objects as all others.
#import <CoreGraphics/CoreGraphics.h>

#include "objects.h"
#include "runtime.h"
#include "system.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <map>

@interface SimDictionary : NSObject
@end
@implementation SimDictionary
@end
@interface SimBoolean : NSObject
@end
@implementation SimBoolean
@end
@interface SimImage : NSObject
@end
@implementation SimImage
@end
@interface SimColorSpace : NSObject
@end
@implementation SimColorSpace
@end
@interface SimContext : NSObject
@end
@implementation SimContext
@end
@interface SimEvent : NSObject
@end
@implementation SimEvent
@end

namespace {

using macsim::answers;
using macsim::bodyOf;
using macsim::objectAt;
using macsim::Strong;

struct BooleanBody : macsim::ledger::Body {
    bool value = false;
    void end() override { value = false; }
};

struct DictionaryBody : macsim::ledger::Body {
    std::map<const void*, Strong> values;
    std::optional<macsim::Rect> rect; ///< when it is a rectangle's
    void end() override { values.clear(); }
};

struct ImageBody : macsim::ledger::Body {
    macsim::WindowImage image;
    void end() override { std::fill(image.pixels.begin(), image.pixels.end(), 0xdeaddeadU); }
};

struct ContextBody : macsim::ledger::Body {
    unsigned char* data = nullptr;
    std::size_t width = 0;
    std::size_t height = 0;
    std::size_t bytesPerRow = 0;
    bool littleEndian = false;
};

struct EventBody : macsim::ledger::Body {
    CGPoint location{};
    void end() override { location = {-1e9, -1e9}; }
};

constexpr std::uint32_t premultipliedFirst = 2;
constexpr std::uint32_t littleEndian32 = 2U << 12U;

template <typename T>
T handleOf(id object)
{
    return reinterpret_cast<T>(const_cast<void*>(static_cast<const void*>(object)));
}

/// source over destination, both premultiplied.
std::uint32_t over(std::uint32_t source, std::uint32_t destination)
{
    const std::uint32_t seenThrough = 255 - (source >> 24U);
    std::uint32_t result = 0;
    for (unsigned shift = 0; shift < 32; shift += 8) {
        const std::uint32_t below = (destination >> shift) & 0xffU;
        const std::uint32_t sum = ((source >> shift) & 0xffU) + (below * seenThrough + 127) / 255;
        result |= std::min<std::uint32_t>(sum, 255) << shift;
    }
    return result;
}

void drawRow(const ContextBody& context, const ImageBody& body, std::size_t row, const CGRect& rect)
{
    const macsim::WindowImage& image = body.image;
    for (std::size_t column = 0; column < context.width; ++column) {
        const double x = (double(column) + 0.5 - rect.origin.x) / rect.size.width;
        const double y = (double(row) + 0.5 - rect.origin.y) / rect.size.height;
        if (x < 0 || x >= 1 || y < 0 || y >= 1)
            continue;
        const auto fromX = std::size_t(x * double(image.width));
        const auto fromY = std::size_t(y * double(image.height));
        unsigned char* place = context.data + row * context.bytesPerRow + column * 4;
        std::uint32_t value = 0;
        std::memcpy(&value, place, sizeof(value));
        value = over(image.pixels[fromY * image.width + fromX], value);
        if (!context.littleEndian)
            value = __builtin_bswap32(value);
        std::memcpy(place, &value, sizeof(value));
    }
}

Strong makeDictionary()
{
    return Strong::adopt([SimDictionary alloc]);
}

/// The description of a window.
Strong describeWindow()
{
    Strong window = makeDictionary();
    if (answers().windowInfo != macsim::WindowInfo::OnScreenIsNotTold) {
        Strong onScreen = Strong::adopt([SimBoolean alloc]);
        bodyOf<BooleanBody>(onScreen.get())->value = answers().windowInfo != macsim::WindowInfo::NotOnScreen;
        bodyOf<DictionaryBody>(window.get())->values.emplace(kCGWindowIsOnscreen, onScreen);
    }
    if (answers().windowInfo == macsim::WindowInfo::NoBounds)
        return window;
    Strong bounds = makeDictionary();
    if (answers().windowInfo != macsim::WindowInfo::MalformedBounds)
        bodyOf<DictionaryBody>(bounds.get())->rect = answers().bounds;
    bodyOf<DictionaryBody>(window.get())->values.emplace(kCGWindowBounds, bounds);
    return window;
}

}

namespace macsim {

WindowImage solidImage(std::size_t width, std::size_t height, std::uint32_t premultiplied)
{
    return {width, height, std::vector<std::uint32_t>(width * height, premultiplied), std::nullopt};
}

}

extern "C" {

// ---- Core Foundation --------------------------------------------------------------------------------------------

const CFAllocatorRef kCFAllocatorDefault = nullptr;

void CFRelease(CFTypeRef object)
{
    if (object)
        [objectAt(object) release];
    else
        macsim::ledger::fault("CFRelease() of nothing");
}

CFIndex CFArrayGetCount(CFArrayRef array)
{
    if (!array)
        macsim::ledger::fault("CFArrayGetCount() of nothing");
    return CFIndex([static_cast<NSArray*>(objectAt(array)) count]);
}

const void* CFArrayGetValueAtIndex(CFArrayRef array, CFIndex index)
{
    return [static_cast<NSArray*>(objectAt(array)) objectAtIndex:NSUInteger(index)];
}

const void* CFDictionaryGetValue(CFDictionaryRef dictionary, const void* key)
{
    const auto body = bodyOf<DictionaryBody>(dictionary);
    const auto found = body->values.find(key);
    return found != body->values.end() ? found->second.get() : nullptr;
}

Boolean CFBooleanGetValue(CFBooleanRef boolean)
{
    return bodyOf<BooleanBody>(boolean)->value;
}

// ---- permission -------------------------------------------------------------------------------------------------

bool CGPreflightScreenCaptureAccess()
{
    macsim::leaveToPool();
    std::size_t asked = 0;
    macsim::system::note([&asked](macsim::Record& record) { asked = std::size_t(record.preflights++); });
    const auto& given = answers().preflight;
    return given[std::min(asked, given.size() - 1)];
}

bool CGRequestScreenCaptureAccess()
{
    macsim::leaveToPool();
    macsim::system::note([](macsim::Record& record) { ++record.requests; });
    return answers().request;
}

// ---- windows ----------------------------------------------------------------------------------------------------

const CFStringRef kCGWindowIsOnscreen = reinterpret_cast<CFStringRef>("kCGWindowIsOnscreen");
const CFStringRef kCGWindowBounds = reinterpret_cast<CFStringRef>("kCGWindowBounds");

const CGRect CGRectNull
    = {{std::numeric_limits<double>::infinity(), std::numeric_limits<double>::infinity()}, {0, 0}};

/// Not declared anywhere: the program looks it up.
CGImageRef CGWindowListCreateImage(
    CGRect bounds, std::uint32_t listOption, CGWindowID windowId, std::uint32_t imageOption)
{
    macsim::leaveToPool();
    int index = 0;
    macsim::system::note([&](macsim::Record& record) {
        index = int(record.images.size());
        record.images.push_back(
            {std::isinf(bounds.origin.x) && std::isinf(bounds.origin.y), listOption, windowId, imageOption});
    });
    auto shown = answers().image ? answers().image(windowId, index) : std::nullopt;
    if (!shown)
        return nullptr;
    id image = [SimImage alloc];
    bodyOf<ImageBody>(image)->image = std::move(*shown);
    return handleOf<CGImageRef>(image);
}

CFArrayRef CGWindowListCopyWindowInfo(CGWindowListOption option, CGWindowID windowId)
{
    macsim::leaveToPool();
    macsim::system::note([&](macsim::Record& record) { record.infos.push_back({std::uint32_t(option), windowId}); });
    if (answers().windowInfo == macsim::WindowInfo::NoArray)
        return nullptr;
    NSArray* array = [NSArray alloc];
    if (answers().windowInfo == macsim::WindowInfo::NullElement)
        bodyOf<macsim::ArrayBody>(array)->items.emplace_back(nil);
    else if (answers().windowInfo != macsim::WindowInfo::EmptyArray)
        bodyOf<macsim::ArrayBody>(array)->items.push_back(describeWindow());
    return handleOf<CFArrayRef>(array);
}

bool CGRectMakeWithDictionaryRepresentation(CFDictionaryRef dictionary, CGRect* rect)
{
    const auto body = bodyOf<DictionaryBody>(dictionary);
    if (!body->rect)
        return false;
    *rect = {{body->rect->x, body->rect->y}, {body->rect->width, body->rect->height}};
    return true;
}

// ---- images and drawing -----------------------------------------------------------------------------------------

size_t CGImageGetWidth(CGImageRef image)
{
    const auto body = bodyOf<ImageBody>(image);
    return body->image.claimedSize ? body->image.claimedSize->first : body->image.width;
}

size_t CGImageGetHeight(CGImageRef image)
{
    const auto body = bodyOf<ImageBody>(image);
    return body->image.claimedSize ? body->image.claimedSize->second : body->image.height;
}

void CGImageRelease(CGImageRef image)
{
    [objectAt(image) release];
}

CGColorSpaceRef CGColorSpaceCreateDeviceRGB()
{
    return answers().noColorSpace ? nullptr : handleOf<CGColorSpaceRef>([SimColorSpace alloc]);
}

void CGColorSpaceRelease(CGColorSpaceRef space)
{
    [objectAt(space) release];
}

CGContextRef CGBitmapContextCreate(void* data, size_t width, size_t height, size_t bitsPerComponent,
    size_t bytesPerRow, CGColorSpaceRef space, uint32_t bitmapInfo)
{
    macsim::leaveToPool();
    macsim::system::note([&](macsim::Record& record) {
        record.contexts.push_back({width, height, bitsPerComponent, bytesPerRow, bitmapInfo});
    });
    const bool known = bitsPerComponent == 8 && (bitmapInfo & ~littleEndian32) == premultipliedFirst;
    if (answers().noBitmapContext || !known || !space || !macsim::ledger::isAlive(space) || bytesPerRow < width * 4)
        return nullptr;
    id context = [SimContext alloc];
    const auto body = bodyOf<ContextBody>(context);
    body->data = static_cast<unsigned char*>(data);
    body->width = width;
    body->height = height;
    body->bytesPerRow = bytesPerRow;
    body->littleEndian = bitmapInfo & littleEndian32;
    return handleOf<CGContextRef>(context);
}

void CGContextDrawImage(CGContextRef context, CGRect rect, CGImageRef image)
{
    macsim::system::note([&](macsim::Record& record) {
        record.drawings.push_back({rect.origin.x, rect.origin.y, rect.size.width, rect.size.height});
    });
    const auto to = bodyOf<ContextBody>(context);
    const auto from = bodyOf<ImageBody>(image);
    for (std::size_t row = 0; row < to->height; ++row)
        drawRow(*to, *from, row, rect);
}

void CGContextRelease(CGContextRef context)
{
    [objectAt(context) release];
}

// ---- the pointer ------------------------------------------------------------------------------------------------

CGEventRef CGEventCreate(CGEventSourceRef)
{
    macsim::leaveToPool();
    if (!answers().pointer)
        return nullptr;
    id event = [SimEvent alloc];
    bodyOf<EventBody>(event)->location = {answers().pointer->x, answers().pointer->y};
    return handleOf<CGEventRef>(event);
}

CGPoint CGEventGetLocation(CGEventRef event)
{
    return bodyOf<EventBody>(event)->location;
}
}
