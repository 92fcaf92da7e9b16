// Device strings: whose audio is recorded, with the applications that the system lists.
//
// An input is lines: the device, which ends at a zero byte as an argument does, then one application each: process
// id, bundle, name and executable, between tabs.
#include "audioselection.h"
#include "fakeaudio.h"
#include "fakeplatform.h"
#include "fuzztarget.h"
#include "recorderaudiocapture_p.h"

#include <set>

namespace {

constexpr std::size_t mostApplications = 8;

QString toText(std::string_view bytes)
{
    return QString::fromUtf8(bytes.data(), qsizetype(bytes.size()));
}

std::vector<platform::AudioApplication> takeApplications(fuzz::Input& input)
{
    std::vector<platform::AudioApplication> applications;
    while (!input.isEmpty() && applications.size() < mostApplications) {
        const QStringList parts = toText(input.takeText('\n')).split(QLatin1Char('\t'));
        platform::AudioApplication application;
        application.processId = parts[0].toInt();
        application.bundleIdentifier = parts.value(1);
        application.applicationName = parts.value(2);
        fakeplatform::audio().executables[application.processId] = parts.value(3);
        applications.push_back(application);
    }
    return applications;
}

/// What the text behind "app-pid:" is worth, digit by digit.
qint64 expectedProcess(const QString& number)
{
    QString digits = number.trimmed();
    if (digits.startsWith(QLatin1Char('+')))
        digits.remove(0, 1);
    while (digits.size() > 1 && digits.startsWith(QLatin1Char('0')))
        digits.remove(0, 1);
    const bool isNumber = !digits.isEmpty() && std::all_of(digits.begin(), digits.end(), [](QChar character) {
        return character >= QLatin1Char('0') && character <= QLatin1Char('9');
    });
    const QString most = QString::number(std::numeric_limits<qint64>::max());
    const bool fits = digits.size() < most.size() || (digits.size() == most.size() && digits <= most);
    if (!isNumber || !fits)
        return 0;
    qint64 result = 0;
    for (const QChar digit : digits)
        result = result * 10 + (digit.unicode() - '0');
    return result;
}

void checkFilter(const platform::AudioFilter& filter, const RecorderAudioCapturePrivate& capture)
{
    fuzz::require(
        filter.excludedApplications.has_value() == capture.appOnly, "only one application leaves others out");
    if (!filter.excludedApplications)
        return;
    const auto& applications = filter.content->applications;
    const std::vector<std::size_t>& excluded = *filter.excludedApplications;
    fuzz::require(std::set(excluded.begin(), excluded.end()).size() == excluded.size(), "each is left out once");
    for (const std::size_t index : excluded) {
        fuzz::require(index < applications.size(), "who is left out is in the list");
        fuzz::require(applications[index].processId != capture.appPid, "who is wanted is not left out");
    }
}

void run(fuzz::Input input)
{
    fakeplatform::reset();
    const std::string_view line = input.takeText('\n');
    const QString device = toText(line.substr(0, line.find('\0')));
    const std::vector<platform::AudioApplication> applications = takeApplications(input);
    fakeplatform::audio().lookup = fakeplatform::contentOf(applications);
    {
        const RecorderAudioCapturePrivate capture(device);
        fuzz::require(capture.device == device.trimmed(), "a device is taken without blanks around it");
        fuzz::require(capture.appOnly == capture.device.startsWith(QLatin1String("app-pid:")), "the word decides");
        fuzz::require(capture.appPid == (capture.appOnly ? expectedProcess(capture.device.mid(8)) : 0),
            "a process id is a decimal number above 0");
        const audioselection::Device again = audioselection::parseDevice(capture.device);
        fuzz::require(again.text == capture.device && again.appPid == capture.appPid, "read again it is the same");
        const bool isListed = std::any_of(applications.begin(), applications.end(),
            [&capture](const auto& application) { return application.processId == capture.appPid; });
        fuzz::require(capture.valid == (!capture.appOnly || (capture.appPid > 0 && isListed)),
            "what is in the list can be captured, and the display");
        const auto& streams = fakeplatform::audio().streams;
        fuzz::require(streams.size() == std::size_t(capture.valid), "a capture has one stream");
        if (capture.valid)
            checkFilter(streams.front().filter, capture);
    }
    fuzz::require(fakeplatform::audio().liveStreams == 0 && fakeplatform::audio().liveOutputs == 0,
        "nothing of the platform is left");
}

const fuzz::Target deviceStrings{"devicestrings", run,
    {"macOS app-only audio capture received an invalid app-pid device:",
        "macOS ScreenCaptureKit could not find requested app for app-only audio"}};

}

ORVANTIS_FUZZ_TARGET(deviceStrings)
