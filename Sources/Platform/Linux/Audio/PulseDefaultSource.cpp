#include "PulseDefaultSource.h"

#include "Platform/InputDevices.h"
#include "Shared/Logging.h"

#include <pulse/pulseaudio.h>

#include <QElapsedTimer>

namespace {

struct Query {
    QString sourceName;
    int captureSources = 0;
    bool done = false;
};

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata)
{
    auto* query = static_cast<Query*>(userdata);
    if (info && info->default_source_name)
        query->sourceName = QString::fromUtf8(info->default_source_name);
    query->done = true;
}

void onSourceInfo(pa_context*, const pa_source_info* info, int endOfList, void* userdata)
{
    auto* query = static_cast<Query*>(userdata);
    if (endOfList != 0)
        query->done = true;
    else if (info && info->monitor_of_sink == PA_INVALID_INDEX)
        ++query->captureSources;
}

using Request = pa_operation* (*)(pa_context*, Query*);

// Connects, sends one request and runs the loop until its callback marks the query done.
void ask(Request request, Query& query)
{
    // A dead or absent server must not stall a dictation: give up after half a second.
    constexpr int kTimeoutMs = 500;
    pa_mainloop* loop = pa_mainloop_new();
    pa_context* context = pa_context_new(pa_mainloop_get_api(loop), "Voxaria");
    QElapsedTimer clock;
    clock.start();
    bool asked = false;
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
        while (!query.done && clock.elapsed() < kTimeoutMs) {
            const pa_context_state_t state = pa_context_get_state(context);
            if (!PA_CONTEXT_IS_GOOD(state))
                break;
            if (state == PA_CONTEXT_READY && !asked) {
                if (pa_operation* operation = request(context, &query))
                    pa_operation_unref(operation);
                asked = true;
            }
            pa_mainloop_prepare(loop, int(kTimeoutMs - clock.elapsed()) * 1000);
            pa_mainloop_poll(loop);
            pa_mainloop_dispatch(loop);
        }
    }
    pa_context_disconnect(context);
    pa_context_unref(context);
    pa_mainloop_free(loop);
}

}

QString pulseDefaultSourceName()
{
    Query query;
    ask([](pa_context* context, Query* pending) { return pa_context_get_server_info(context, onServerInfo, pending); }, query);
    if (!query.done)
        qCInfo(lcAudio) << "PulseAudio gave no default source";
    return query.sourceName;
}

int pulseCaptureSourceCount()
{
    Query query;
    ask([](pa_context* context, Query* pending) { return pa_context_get_source_info_list(context, onSourceInfo, pending); }, query);
    if (!query.done)
        qCInfo(lcAudio) << "PulseAudio listed no sources";
    return query.captureSources;
}

bool InputDevices::anyListed()
{
    return pulseCaptureSourceCount() > 0;
}
