// DisplayRelay: a display under another name that passes everything on to a real one, and can stop in the middle.
#pragma once

#include <QByteArray>
#include <QString>

#include <atomic>
#include <thread>

/// Takes one client. What the client sends goes on without the descriptors that may come with it. Every method may be
/// called from any thread.
class DisplayRelay {
public:
    /// The display to pass on to, ":7".
    explicit DisplayRelay(const QByteArray& target);
    ~DisplayRelay();
    DisplayRelay(const DisplayRelay&) = delete;
    DisplayRelay& operator=(const DisplayRelay&) = delete;

    QByteArray display() const { return display_; } ///< as in DISPLAY
    QString errorString() const { return error_; } ///< empty when it listens

    /// Of the next piece from the server that has so many bytes or more, only the first 32 arrive, and nothing after
    /// it, until release().
    void holdNextAnswer(int leastSize);
    bool isHolding() const { return holding_; }
    void release();

private:
    void relay();
    bool passToServer(int client, int server);
    bool passToClient(int client, int server);

    QByteArray display_;
    QByteArray target_;
    QString error_;
    QByteArray held_; // relay thread
    int listener_ = -1;
    std::atomic<int> holdFrom_{0}; // bytes; 0: nothing is to be held
    std::atomic<bool> holding_{false};
    std::atomic<bool> ending_{false};
    std::thread thread_;
};
