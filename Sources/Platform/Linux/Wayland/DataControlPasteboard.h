#pragma once

#include "Platform/Pasteboard.h"

#include <QObject>
#include <QPointer>
#include <QStringList>

#include <map>
#include <memory>
#include <utility>
#include <vector>

class WaylandClient;
class WorkerThreads;
struct zwlr_data_control_device_v1;
struct zwlr_data_control_offer_v1;
struct zwlr_data_control_source_v1;

// The Wayland clipboard through the data-control protocol (the standard ext one, or wlroots'), which
// lets Voxaria read and set it without a focused window of its own (sway, Hyprland, KWin). Each
// write replaces the selection with a new source before the old one goes, so the clipboard is never
// empty in between. Every MIME type the owner offers is
// read and can be offered back; a snapshot asks for all of them at once and reads them while the
// event loop runs, so an owner that never answers costs one deadline and no frozen main thread.
// What Voxaria puts on the clipboard is kept in memory and handed to each reader from a thread of
// its own, so a slow reader never stalls the main thread; those threads end with the pasteboard.
// Main thread only.
class DataControlPasteboard final : public Pasteboard {
public:
    explicit DataControlPasteboard(std::shared_ptr<WaylandClient> client);
    ~DataControlPasteboard() override;

    // Whether the compositor lets this client manage the clipboard.
    bool isAvailable() const { return m_device != nullptr; }

    int itemCount() override;
    QStringList types(int index) override;
    std::optional<QByteArray> data(int index, const QString& type) override;
    void setString(const QString& text) override;
    void writeItems(const Contents& items) override;
    bool ownsContents() override;
    void snapshot(QObject* context, std::function<void(std::optional<Contents>)> done) override;

private:
    using Entries = std::vector<std::pair<QString, QByteArray>>;

    static void onDataOffer(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer);
    static void onSelection(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer);
    static void onPrimarySelection(void* data, zwlr_data_control_device_v1*, zwlr_data_control_offer_v1* offer);
    static void onFinished(void* data, zwlr_data_control_device_v1*);
    static void onOfferedType(void* data, zwlr_data_control_offer_v1* offer, const char* mimeType);
    static void onSend(void* data, zwlr_data_control_source_v1* source, const char* mimeType, int32_t fd);
    static void onCancelled(void* data, zwlr_data_control_source_v1* source);

    // Handles what the compositor has sent so far, without waiting for more.
    void synchronise();
    void takeSnapshot(QObject* context, std::function<void(std::optional<Contents>)> done);
    // Becomes the clipboard owner, offering `entries` (nothing: an empty clipboard).
    void offer(Entries entries);
    void dropOwnSource();
    std::optional<QByteArray> receive(const QString& type);
    // The read end of a pipe the owner was asked to write its `type` data into; -1 if none opened.
    int requestData(const QString& type);

    std::shared_ptr<WaylandClient> m_client;
    zwlr_data_control_device_v1* m_device = nullptr;
    // Offers introduced whose selection event is still to come, with the types announced so far.
    std::map<zwlr_data_control_offer_v1*, QStringList> m_announced;
    zwlr_data_control_offer_v1* m_selection = nullptr;
    QStringList m_selectionTypes;
    // Ours while Voxaria owns the clipboard, with what it offers.
    zwlr_data_control_source_v1* m_source = nullptr;
    Entries m_sourceEntries;
    // The threads that hand what we offer to its readers; when the pasteboard goes they get a
    // moment to finish, then are stopped and joined.
    std::unique_ptr<WorkerThreads> m_writers;
    // Snapshots still reading; whatever is left of them ends with the pasteboard.
    std::vector<QPointer<QObject>> m_snapshots;
    // The compositor's answers that a snapshot awaits belong to it: none comes after it is gone.
    QObject m_answers;
};
