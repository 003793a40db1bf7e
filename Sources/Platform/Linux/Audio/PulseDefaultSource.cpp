#include "PulseDefaultSource.h"

#include "InputDevices.h"
#include "Shared/Logging.h"

#include <pulse/pulseaudio.h>

#include <chrono>
#include <utility>

namespace {

// A local server answers within milliseconds; a dead one must not stall the first dictation longer.
constexpr std::chrono::milliseconds kFirstAnswerTimeout(500);

void release(pa_operation* operation)
{
    if (operation)
        pa_operation_unref(operation);
}

}

struct PulseDefaultSource::Callbacks {
    static void onStateChange(pa_context* context, void* userdata)
    {
        auto* self = static_cast<PulseDefaultSource*>(userdata);
        switch (pa_context_get_state(context)) {
        case PA_CONTEXT_READY:
            release(pa_context_subscribe(
                context, pa_subscription_mask_t(PA_SUBSCRIPTION_MASK_SERVER | PA_SUBSCRIPTION_MASK_SOURCE), nullptr, nullptr));
            askServer(context, self);
            askSources(context, self);
            self->reached();
            break;
        case PA_CONTEXT_FAILED:
        case PA_CONTEXT_TERMINATED: self->lost(pa_context_errno(context)); break;
        default: break;
        }
    }

    // The default source changes with the server's info; the count only when a source comes or goes.
    static void onEvent(pa_context* context, pa_subscription_event_type_t event, uint32_t, void* userdata)
    {
        auto* self = static_cast<PulseDefaultSource*>(userdata);
        const int facility = event & PA_SUBSCRIPTION_EVENT_FACILITY_MASK;
        if (facility == PA_SUBSCRIPTION_EVENT_SERVER)
            askServer(context, self);
        else if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && (event & PA_SUBSCRIPTION_EVENT_TYPE_MASK) != PA_SUBSCRIPTION_EVENT_CHANGE)
            askSources(context, self);
    }

    static void askServer(pa_context* context, PulseDefaultSource* self)
    {
        release(pa_context_get_server_info(context, onServerInfo, self));
    }

    static void askSources(pa_context* context, PulseDefaultSource* self)
    {
        release(pa_context_get_source_info_list(context, onSourceInfo, self));
    }

    static void onServerInfo(pa_context*, const pa_server_info* info, void* userdata)
    {
        auto* self = static_cast<PulseDefaultSource*>(userdata);
        const std::lock_guard lock(self->m_mutex);
        self->m_snapshot.name = info && info->default_source_name ? QString::fromUtf8(info->default_source_name) : QString();
        self->m_serverKnown = true;
        self->settleIfKnown();
    }

    // A listing arrives whole in one reply, so two listings never interleave.
    static void onSourceInfo(pa_context*, const pa_source_info* info, int endOfList, void* userdata)
    {
        auto* self = static_cast<PulseDefaultSource*>(userdata);
        if (endOfList == 0) {
            if (info && info->monitor_of_sink == PA_INVALID_INDEX)
                ++self->m_listing;
            return;
        }
        const std::lock_guard lock(self->m_mutex);
        self->m_snapshot.captureSources = std::exchange(self->m_listing, 0);
        self->m_sourcesKnown = true;
        self->settleIfKnown();
    }
};

PulseDefaultSource& PulseDefaultSource::shared()
{
    static PulseDefaultSource instance;
    return instance;
}

PulseDefaultSource::PulseDefaultSource()
    : m_loop(pa_threaded_mainloop_new())
{
    pa_threaded_mainloop_set_name(m_loop, "voxaria-pulse");
    pa_threaded_mainloop_start(m_loop);
    pa_threaded_mainloop_lock(m_loop);
    connect();
    pa_threaded_mainloop_unlock(m_loop);
}

PulseDefaultSource::~PulseDefaultSource()
{
    pa_threaded_mainloop_lock(m_loop);
    dropContext();
    pa_threaded_mainloop_unlock(m_loop);
    pa_threaded_mainloop_stop(m_loop);
    pa_threaded_mainloop_free(m_loop);
}

QString PulseDefaultSource::name()
{
    return current().name;
}

int PulseDefaultSource::captureSourceCount()
{
    return current().captureSources;
}

PulseDefaultSource::Snapshot PulseDefaultSource::current()
{
    if (m_lost.exchange(false)) {
        pa_threaded_mainloop_lock(m_loop);
        connect();
        pa_threaded_mainloop_unlock(m_loop);
    }
    std::unique_lock lock(m_mutex);
    if (!m_settled) {
        m_firstAnswer.wait_for(lock, kFirstAnswerTimeout, [this] { return m_settled; });
        m_settled = true;
    }
    return m_snapshot;
}

void PulseDefaultSource::connect()
{
    dropContext();
    m_listing = 0;
    m_context = pa_context_new(pa_threaded_mainloop_get_api(m_loop), "Voxaria");
    pa_context_set_state_callback(m_context, &Callbacks::onStateChange, this);
    pa_context_set_subscribe_callback(m_context, &Callbacks::onEvent, this);
    if (pa_context_connect(m_context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0)
        lost(pa_context_errno(m_context));
}

void PulseDefaultSource::dropContext()
{
    if (!m_context)
        return;
    pa_context_set_state_callback(m_context, nullptr, nullptr);
    pa_context_set_subscribe_callback(m_context, nullptr, nullptr);
    pa_context_disconnect(m_context);
    pa_context_unref(m_context);
    m_context = nullptr;
}

void PulseDefaultSource::reached()
{
    const std::lock_guard lock(m_mutex);
    if (std::exchange(m_lossLogged, false))
        qCInfo(lcAudio) << "PulseAudio reached again";
}

// The answers fall back to "" and 0 at once; the loss is logged once until the server is back.
void PulseDefaultSource::lost(int error)
{
    bool firstLoss = false;
    {
        const std::lock_guard lock(m_mutex);
        m_snapshot = {};
        m_settled = true;
        firstLoss = !std::exchange(m_lossLogged, true);
    }
    m_firstAnswer.notify_all();
    m_lost = true;
    if (firstLoss)
        qCInfo(lcAudio) << "PulseAudio cannot be reached, so it gives no default source and lists no sources:" << pa_strerror(error);
}

void PulseDefaultSource::settleIfKnown()
{
    if (m_serverKnown && m_sourcesKnown && !std::exchange(m_settled, true))
        m_firstAnswer.notify_all();
}

bool InputDevices::anyListed()
{
    return PulseDefaultSource::shared().captureSourceCount() > 0;
}
