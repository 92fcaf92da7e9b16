// Whose audio is it: the applications that run now, and whether a stream's process belongs to one that is left out.
//
// An audio stream belongs to a process, and that process to an application: the nearest one, from the process upwards
// through its parents, that is wanted or owns a window. Helper processes (a browser's audio process, say) are thereby
// part of their application, and a program with a window of its own does not belong to the terminal that started it.
#pragma once

#include "platform/audio.h"
#include "processtable.h"

#include <QString>

#include <memory>
#include <optional>
#include <vector>

namespace streamowners {

/// A stream that plays or could play, as the audio server tells it.
struct Stream {
    qint64 processId = 0; ///< of the program behind it; 0 when the server does not know
    QString applicationName; ///< may be empty
    QString applicationId; ///< portal or desktop id where the server knows one; else empty
};

/// The applications of one moment. Immutable; any thread.
class ApplicationSnapshot {
public:
    struct Data;

    /// Counts what runs now: owners of windows, owners of streams, then every other process of this user. Waits for
    /// the X server with a bound; where none answers nobody owns a window, as far as is known.
    static std::shared_ptr<const ApplicationSnapshot> take(const std::vector<Stream>& streams);

    explicit ApplicationSnapshot(std::unique_ptr<const Data> data);
    ~ApplicationSnapshot();

    const std::vector<platform::AudioApplication>& applications() const;
    const Data& data() const { return *data_; }

private:
    std::unique_ptr<const Data> data_;
};

/// A process, its parent, and so on.
using Ancestry = std::vector<processtable::Identity>;

/// Decides for streams that appear later which of them a filter lets through. An ancestry is that of one moment: take
/// it when the stream appears, for parents end, and with them the proof.
class ProcessFilter {
public:
    /// excluded: indices into snapshot->applications().
    ProcessFilter(std::shared_ptr<const ApplicationSnapshot> snapshot, const std::vector<std::size_t>& excluded);
    ~ProcessFilter();
    ProcessFilter(const ProcessFilter&) = delete;
    ProcessFilter& operator=(const ProcessFilter&) = delete;

    /// Reads the process table. Any thread.
    Ancestry ancestryOf(qint64 processId) const;
    /// Whether the stream of the first of the ancestry is heard, or nothing when that is not clear without the X
    /// server, or the ancestry is empty. Any thread.
    std::optional<bool> acceptsAtOnce(const Ancestry& ancestry) const;
    /// The same; may ask the X server (bounded). Nothing when that does not answer, or the ancestry is empty: it
    /// could be that of a program that is left out. One thread at a time.
    std::optional<bool> accepts(const Ancestry& ancestry);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}
