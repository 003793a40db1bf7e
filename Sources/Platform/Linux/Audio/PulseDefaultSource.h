#pragma once

#include <QString>

#include <atomic>
#include <condition_variable>
#include <mutex>

struct pa_context;
struct pa_threaded_mainloop;

// PulseAudio's default source and how many capture sources it lists, followed on one connection
// that lives as long as the program. Qt 6.4 marks no input as default on PulseAudio, so the capture
// device is picked by this name.
//
// The connection runs on PulseAudio's own thread, which keeps what the server says (and every
// change it announces) in memory: asking answers at once, from any thread. Only the very first ask
// may wait, up to half a second, for the server's first answer, so the first dictation after start
// still picks the right device. Without a server the answers are "" and 0, and the next ask
// connects again without waiting, so a server started later is found.
class PulseDefaultSource {
public:
    // The one connection, made at the first ask and closed when the program exits.
    static PulseDefaultSource& shared();

    ~PulseDefaultSource();
    PulseDefaultSource(const PulseDefaultSource&) = delete;
    PulseDefaultSource& operator=(const PulseDefaultSource&) = delete;

    // The default source's name ("" when the server cannot be reached).
    QString name();
    // The capture sources, leaving out the monitors of the sinks (0 when the server cannot be reached).
    int captureSourceCount();

private:
    struct Snapshot {
        QString name;
        int captureSources = 0;
    };

    PulseDefaultSource();
    Snapshot current();

    // With the loop locked.
    void connect();
    void dropContext();

    // libpulse's callbacks, on PulseAudio's thread.
    struct Callbacks;
    void reached();
    void lost(int error);
    void settleIfKnown();

    pa_threaded_mainloop* const m_loop;
    pa_context* m_context = nullptr;
    // Set on PulseAudio's thread when the connection failed or ended; the next ask connects again.
    std::atomic_bool m_lost = false;
    // Capture sources counted so far in a listing under way (PulseAudio's thread only).
    int m_listing = 0;

    std::mutex m_mutex;
    std::condition_variable m_firstAnswer;
    Snapshot m_snapshot;
    bool m_serverKnown = false;
    bool m_sourcesKnown = false;
    // The first answer came (or the server could not be reached, or the first ask gave up waiting):
    // no ask waits any more.
    bool m_settled = false;
    bool m_lossLogged = false;
};
