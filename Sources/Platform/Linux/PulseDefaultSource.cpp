#include "PulseDefaultSource.h"

#include "Shared/Logging.h"

#include <pulse/pulseaudio.h>

#include <QElapsedTimer>

namespace {

struct Query {
    QString sourceName;
    bool done = false;
};

void onServerInfo(pa_context*, const pa_server_info* info, void* userdata)
{
    auto* query = static_cast<Query*>(userdata);
    if (info && info->default_source_name)
        query->sourceName = QString::fromUtf8(info->default_source_name);
    query->done = true;
}

}

QString pulseDefaultSourceName()
{
    // A dead or absent server must not stall a dictation: give up after half a second.
    constexpr int kTimeoutMs = 500;
    pa_mainloop* loop = pa_mainloop_new();
    pa_context* context = pa_context_new(pa_mainloop_get_api(loop), "Voxaria");
    Query query;
    QElapsedTimer clock;
    clock.start();
    bool asked = false;
    if (pa_context_connect(context, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) >= 0) {
        while (!query.done && clock.elapsed() < kTimeoutMs) {
            const pa_context_state_t state = pa_context_get_state(context);
            if (!PA_CONTEXT_IS_GOOD(state))
                break;
            if (state == PA_CONTEXT_READY && !asked) {
                pa_operation* operation = pa_context_get_server_info(context, onServerInfo, &query);
                if (operation)
                    pa_operation_unref(operation);
                asked = true;
            }
            pa_mainloop_prepare(loop, int(kTimeoutMs - clock.elapsed()) * 1000);
            pa_mainloop_poll(loop);
            pa_mainloop_dispatch(loop);
        }
    }
    if (!query.done)
        qCInfo(lcAudio) << "PulseAudio gave no default source";
    pa_context_disconnect(context);
    pa_context_unref(context);
    pa_mainloop_free(loop);
    return query.sourceName;
}
