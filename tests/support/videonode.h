// VideoNode: a node of PipeWire that plays frames, as compositors do for a window.
#pragma once

#include <QImage>
#include <QPoint>
#include <QRect>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

/// What a node sends at once.
struct NodeFrame {
    QImage image; ///< of the node's size, ARGB32; its top byte is the fourth one also where that is padding. Null:
                  ///< a buffer of size 0, as for one that only moves the pointer
    std::optional<QRect> crop;
    std::optional<QPoint> pointer;
    std::optional<std::vector<QRect>> damage; ///< nothing: the buffer says nothing of it
    bool corrupted = false;
};

/// Made on the server that the environment names, in this process, with a thread of its own. When it cannot be,
/// id() is 0. One thread.
class VideoNode {
public:
    struct Options {
        QSize size{64, 48};
        uint32_t format = 0; ///< SPA_VIDEO_FORMAT_...
        const char* mediaClass = nullptr; ///< null: what PipeWire makes of it
        bool onlyGraphicsMemory = false; ///< has DMA-BUF and nothing else
        /// Sent whenever the stream begins to run, but the first few times.
        std::optional<NodeFrame> atStart;
        int startsWithout = 0;
    };

    explicit VideoNode(const Options& options);
    ~VideoNode();
    VideoNode(const VideoNode&) = delete;
    VideoNode& operator=(const VideoNode&) = delete;

    uint32_t id() const;
    /// Somebody takes its frames.
    bool isStreaming() const;
    int starts() const;

    /// Waits for a buffer. False when there is none, or the frame does not fit.
    bool send(const NodeFrame& frame);

    /// Agrees anew with who takes the frames.
    bool setFormat(const QSize& size, uint32_t format);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};
