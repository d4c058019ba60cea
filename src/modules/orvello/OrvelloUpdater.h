#pragma once

#include "UpdateSignature.h"

#include "http/httpclient.h"
#include "model/cmreply.h"
#include "vrax/vraxorvelloversioninfo.h"
#include "vrax/vraxurl.h"

#include <QObject>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

class LibraryStore;
class QTimer;

// Keeps the player library current: at the configured interval it fetches the service's
// configuration document, and when that names a version newer (as text) than the running one,
// downloads the library into the library store's scratch directory (TMP_DOWNLOAD_DEST unless the
// worker chose a private directory), verifies it, hands it to the store and emits
// updateFinished().
//
// Reads its URL and interval once, at construction; an empty URL or an interval below one
// second leaves it idle for its whole life. Lives on the worker's thread; every callback and
// the timer run there. Owns its HTTP client and timer (children); destroying the updater
// drops any fetch or download under way without a callback.
//
// One download at a time, and one per offered file: a check that finds a download still
// running, or the offered file downloaded and verified already and waiting to be installed (or
// refused by the store), starts none. A download that verifies is handed to the store
// (LibraryStore::addVerifiedDownload: version, checksum and signature); the store installs
// nothing else. A download that completes after its version stopped sorting after the running
// one is dropped.
//
// Bounded: the document is read up to ConfigSizeLimit bytes, a check ends after CheckDeadline
// and a download after DownloadDeadline, and an offered version must be 1 to MaxVersionLength
// printable ASCII characters. In a module built with an update key (UpdateSignature::builtIn)
// only offers whose document carries the service's signature of version and checksum are
// downloaded.
class OrvelloUpdater : public QObject
{
    Q_OBJECT
public:
    // The default scratch directory (prepared by the worker) and the file a verified download
    // is left in there.
    static constexpr char TMP_DOWNLOAD_PATH[] = "/tmp/orvello";
    static constexpr char TMP_DOWNLOAD_DEST[] = "/tmp/orvello/liboplayer-1.so";
    static constexpr int ConfigSizeLimit = 64 * 1024;
    static constexpr std::chrono::milliseconds CheckDeadline = std::chrono::seconds(30);
    static constexpr std::chrono::milliseconds DownloadDeadline = std::chrono::minutes(15);
    static constexpr int MaxVersionLength = 64;
    // The document's member that carries the signature.
    static constexpr char SignatureKey[] = "signature";

    // store is the worker's and must outlive the updater; without one the updater keeps a store
    // of its own on the default paths.
    explicit OrvelloUpdater(LibraryStore* store = nullptr);
    ~OrvelloUpdater() override;

    // Shorter deadlines, for tests that cannot wait out the real ones; applies to requests
    // started afterwards.
    void setDeadlines(std::chrono::milliseconds check, std::chrono::milliseconds download);

    // Starts one asynchronous configuration fetch and returns at once; a fetch under way is
    // neither cancelled nor awaited.
    void check();

    // Streams url into the store's download path + ".tmp" (created anew, exclusively, mode 0600)
    // and, once complete, gives it the download path. A file already standing there is not
    // replaced: it stays and the reply is true all the same. Answered once: true when the
    // transfer completed, false on any failure, DownloadDeadline passing included (the ".tmp"
    // file is then removed). Answered before return when the temporary file cannot be created,
    // and with false when another download is still running (its ".tmp" file is left alone).
    CMReply<bool> downloadLibrary(const QString& url);
    bool downloadRunning() const;

    // True when the SHA-256 of the download (the store's download path, never through a link),
    // as lowercase hex, equals info.checksum() exactly. Reads the file synchronously; a missing
    // file gives false.
    bool verifyDownloadedLib(const VraxOrvelloVersionInfo& info);

Q_SIGNALS:
    // A newer library is at the store's download path, verified and recorded. Emitted once per
    // download.
    void updateFinished();

private Q_SLOTS:
    void on_checkTimer_timeout();

private:
    // The overall time limit of one request, shared by the request's callback (which ends it)
    // and a timer of the updater's (which aborts the request when it passes first).
    struct Deadline;
    // Starts deadline for request id: once after has passed, expired() logs why and the request
    // is aborted, unless the callback ended the deadline first.
    void startDeadline(const std::shared_ptr<Deadline>& deadline, HttpClient::RequestId id,
                       std::chrono::milliseconds after, std::function<void()> expired);
    // What is wrong with the document, logged; false when it must not be used.
    bool acceptable(const VraxOrvelloVersionInfo& info) const;
    void onConfigFetched(const HttpClientResult& result);

    HttpClient* m_httpClient;
    QTimer* m_checkTimer;
    VraxUrl m_url;
    std::optional<CMReply<bool>> m_download;
    std::unique_ptr<LibraryStore> m_ownStore;
    LibraryStore* m_store;
    UpdateSignature m_signature;
    std::chrono::milliseconds m_checkDeadline = CheckDeadline;
    std::chrono::milliseconds m_downloadDeadline = DownloadDeadline;
};
