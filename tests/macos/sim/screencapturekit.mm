// What can be captured, and streams of it.
#import <ScreenCaptureKit/ScreenCaptureKit.h>

#include "blocks.h"
#include "objects.h"
#include "queue.h"
#include "runtime.h"
#include "samples.h"
#include "streams.h"
#include "system.h"

#include <algorithm>

namespace {

using macsim::answers;
using macsim::bodyOf;
using macsim::Strong;

struct DisplayBody : macsim::ledger::Body {
    int index = 0;
};

struct ApplicationBody : macsim::ledger::Body {
    macsim::Application application;
};

struct ContentBody : macsim::ledger::Body {
    std::vector<Strong> displays;
    std::vector<Strong> applications;

    void end() override
    {
        displays.clear();
        applications.clear();
    }
};

struct FilterBody : macsim::ledger::Body {
    std::optional<Strong> display;
    std::vector<Strong> applications;
    bool ofApplications = false;
    std::size_t windows = 0;

    void end() override
    {
        display.reset();
        applications.clear();
    }
};

struct ConfigurationBody : macsim::ledger::Body {
    macsim::StreamMade values;
};

Strong makeContent()
{
    Strong content = Strong::adopt([SCShareableContent alloc]);
    const auto body = bodyOf<ContentBody>(content.get());
    for (std::size_t i = 0; i < answers().displays; ++i) {
        body->displays.push_back(Strong::adopt([SCDisplay alloc]));
        bodyOf<DisplayBody>(body->displays.back().get())->index = int(i);
    }
    for (const auto& application : answers().applications) {
        body->applications.push_back(Strong::adopt([SCRunningApplication alloc]));
        bodyOf<ApplicationBody>(body->applications.back().get())->application = application;
    }
    return content;
}

std::vector<Strong> itemsOf(NSArray* array)
{
    return array ? bodyOf<macsim::ArrayBody>(array)->items : std::vector<Strong>();
}

}

namespace macsim {

StreamMade describeStream(id filter, id configuration)
{
    StreamMade made = bodyOf<ConfigurationBody>(configuration)->values;
    const auto body = bodyOf<FilterBody>(filter);
    made.windows = body->windows;
    if (body->display)
        made.display = bodyOf<DisplayBody>(body->display->get())->index;
    if (body->ofApplications) {
        made.excludedApplications.emplace();
        for (const Strong& one : body->applications)
            made.excludedApplications->push_back(bodyOf<ApplicationBody>(one.get())->application.processId);
    }
    return made;
}

}

@implementation SCRunningApplication

- (pid_t)processID
{
    return bodyOf<ApplicationBody>(self)->application.processId;
}

- (NSString*)bundleIdentifier
{
    return macsim::makeText(bodyOf<ApplicationBody>(self)->application.bundleIdentifier);
}

- (NSString*)applicationName
{
    return macsim::makeText(bodyOf<ApplicationBody>(self)->application.name);
}

@end

@implementation SCWindow
@end

@implementation SCDisplay
@end

using ContentHandler = void (^)(SCShareableContent*, NSError*);

@implementation SCShareableContent

+ (void)getShareableContentExcludingDesktopWindows:(BOOL)excludesDesktopWindows
                               onScreenWindowsOnly:(BOOL)onScreenWindowsOnly
                                 completionHandler:(ContentHandler)completionHandler
{
    macsim::leaveToPool();
    macsim::system::note([&](macsim::Record& record) {
        record.contents.push_back({excludesDesktopWindows, onScreenWindowsOnly});
    });
    const macsim::BlockRef<ContentHandler> handler(completionHandler);
    macsim::system::answer(macsim::Call::Content, answers().content, [handler] {
        const bool given = answers().contentError ? answers().contentBesideError : !answers().noContent;
        const Strong content = given ? makeContent() : Strong(nil);
        handler.get()(content.get(), macsim::makeError(answers().contentError));
    });
}

- (NSArray*)displays
{
    return macsim::makeArray(bodyOf<ContentBody>(self)->displays);
}

- (NSArray*)applications
{
    return macsim::makeArray(bodyOf<ContentBody>(self)->applications);
}

- (instancetype)init
{
    return self;
}

+ (instancetype)new
{
    return [self alloc];
}

@end

@implementation SCContentFilter

- (instancetype)initWithDisplay:(SCDisplay*)display excludingWindows:(NSArray*)excluded
{
    const auto body = bodyOf<FilterBody>(self);
    body->display.emplace(display);
    body->windows = itemsOf(excluded).size();
    if (!excluded)
        macsim::ledger::fault("a filter without the list of windows");
    return self;
}

- (instancetype)initWithDisplay:(SCDisplay*)display
          excludingApplications:(NSArray*)applications
               exceptingWindows:(NSArray*)exceptingWindows
{
    const auto body = bodyOf<FilterBody>(self);
    body->display.emplace(display);
    body->ofApplications = true;
    body->applications = itemsOf(applications);
    body->windows = itemsOf(exceptingWindows).size();
    if (!applications || !exceptingWindows)
        macsim::ledger::fault("a filter without its lists");
    return self;
}

@end

@implementation SCStreamConfiguration

- (size_t)width
{
    return bodyOf<ConfigurationBody>(self)->values.width;
}
- (void)setWidth:(size_t)width
{
    bodyOf<ConfigurationBody>(self)->values.width = width;
}

- (size_t)height
{
    return bodyOf<ConfigurationBody>(self)->values.height;
}
- (void)setHeight:(size_t)height
{
    bodyOf<ConfigurationBody>(self)->values.height = height;
}

- (CMTime)minimumFrameInterval
{
    const auto& values = bodyOf<ConfigurationBody>(self)->values;
    return CMTimeMake(values.intervalValue, values.intervalScale);
}
- (void)setMinimumFrameInterval:(CMTime)interval
{
    auto& values = bodyOf<ConfigurationBody>(self)->values;
    values.intervalValue = interval.value;
    values.intervalScale = interval.timescale;
}

- (NSInteger)queueDepth
{
    return bodyOf<ConfigurationBody>(self)->values.queueDepth;
}
- (void)setQueueDepth:(NSInteger)depth
{
    bodyOf<ConfigurationBody>(self)->values.queueDepth = depth;
}

- (BOOL)showsCursor
{
    return bodyOf<ConfigurationBody>(self)->values.showsCursor;
}
- (void)setShowsCursor:(BOOL)shows
{
    bodyOf<ConfigurationBody>(self)->values.showsCursor = shows;
}

- (BOOL)capturesAudio
{
    return bodyOf<ConfigurationBody>(self)->values.capturesAudio;
}
- (void)setCapturesAudio:(BOOL)captures
{
    bodyOf<ConfigurationBody>(self)->values.capturesAudio = captures;
}

- (NSInteger)sampleRate
{
    return bodyOf<ConfigurationBody>(self)->values.sampleRate;
}
- (void)setSampleRate:(NSInteger)rate
{
    bodyOf<ConfigurationBody>(self)->values.sampleRate = rate;
}

- (NSInteger)channelCount
{
    return bodyOf<ConfigurationBody>(self)->values.channelCount;
}
- (void)setChannelCount:(NSInteger)count
{
    bodyOf<ConfigurationBody>(self)->values.channelCount = count;
}

- (BOOL)excludesCurrentProcessAudio
{
    return bodyOf<ConfigurationBody>(self)->values.excludesCurrentProcessAudio;
}
- (void)setExcludesCurrentProcessAudio:(BOOL)excludes
{
    bodyOf<ConfigurationBody>(self)->values.excludesCurrentProcessAudio = excludes;
}

@end
