#pragma once

#include "model/cmpath.h"
#include "vrax/trstring.h"

#include <QList>
#include <QMetaType>
#include <QString>
#include <QVariantHash>

// Records of the play framework: what a play logic publishes about the current track and its
// status. Plain values, copyable, usable from any thread; toVariant() gives the hash under
// which the platform publishes them.

// Status of a play logic's playback. Durations are as the service reports them.
class VraxPlayLogicStatus
{
public:
    long long duration() const { return m_duration; }
    void setDuration(long long duration) { m_duration = duration; }

    QVariantHash toVariant() const;

    friend bool operator==(const VraxPlayLogicStatus& a, const VraxPlayLogicStatus& b);
    friend bool operator!=(const VraxPlayLogicStatus& a, const VraxPlayLogicStatus& b) { return !(a == b); }

private:
    long long m_duration = 0;
};

// Descriptive data of a track and the play logic that plays it.
class VraxMetaData
{
public:
    const QString& album() const { return m_album; }
    void setAlbum(const QString& album) { m_album = album; }
    const QString& artist() const { return m_artist; }
    void setArtist(const QString& artist) { m_artist = artist; }
    const QString& serviceID() const { return m_serviceID; }
    void setServiceID(const QString& serviceID) { m_serviceID = serviceID; }
    const CMPath& playLogicPath() const { return m_playLogicPath; }
    void setPlayLogicPath(const CMPath& path) { m_playLogicPath = path; }

    QVariantHash toVariant() const;

    friend bool operator==(const VraxMetaData& a, const VraxMetaData& b);
    friend bool operator!=(const VraxMetaData& a, const VraxMetaData& b) { return !(a == b); }

private:
    QString m_album;
    QString m_artist;
    QString m_serviceID;
    CMPath m_playLogicPath;
};

// Where the audio of a track comes from.
class VraxResource
{
public:
    const QString& uri() const { return m_uri; }
    void setUri(const QString& uri) { m_uri = uri; }
    const QString& mimeType() const { return m_mimeType; }
    void setMimeType(const QString& mimeType) { m_mimeType = mimeType; }

    QVariantHash toVariant() const;

    friend bool operator==(const VraxResource& a, const VraxResource& b);
    friend bool operator!=(const VraxResource& a, const VraxResource& b) { return !(a == b); }

private:
    QString m_uri;
    QString m_mimeType;
};

class VraxMediaData
{
public:
    const VraxMetaData& metaData() const { return m_metaData; }
    void setMetaData(const VraxMetaData& metaData) { m_metaData = metaData; }
    const QList<VraxResource>& resources() const { return m_resources; }
    void setResources(const QList<VraxResource>& resources) { m_resources = resources; }

    QVariantHash toVariant() const;

    friend bool operator==(const VraxMediaData& a, const VraxMediaData& b);
    friend bool operator!=(const VraxMediaData& a, const VraxMediaData& b) { return !(a == b); }

private:
    VraxMetaData m_metaData;
    QList<VraxResource> m_resources;
};

// What kind of item a roles record describes.
enum class VraxRolesType {
    Unknown = 0,
    Track = 1,
    Container = 2,
    StreamingService = 3, // a service that streams its own program (no browsing of tracks)
};

// The roles of an item: how the player and the UI show and play it.
class VraxRoles
{
public:
    VraxRolesType type() const { return m_type; }
    void setType(VraxRolesType type) { m_type = type; }
    const TrString& title() const { return m_title; }
    void setTitle(const TrString& title) { m_title = title; }
    const QString& icon() const { return m_icon; }
    void setIcon(const QString& icon) { m_icon = icon; }
    const VraxMediaData& mediaData() const { return m_mediaData; }
    void setMediaData(const VraxMediaData& mediaData) { m_mediaData = mediaData; }

    // The key under which roles travel in a set-data request.
    static QString Value() { return QStringLiteral("value"); }

    // The title is published as shown (translated, arguments applied).
    QVariantHash toVariant() const;

    friend bool operator==(const VraxRoles& a, const VraxRoles& b);
    friend bool operator!=(const VraxRoles& a, const VraxRoles& b) { return !(a == b); }

private:
    VraxRolesType m_type = VraxRolesType::Unknown;
    TrString m_title;
    QString m_icon;
    VraxMediaData m_mediaData;
};

// What a streaming service reports about its playback: status and current track.
// Registered as a meta type when the play library is loaded, so it crosses threads in signals.
class VraxStreamerData
{
public:
    const VraxPlayLogicStatus& status() const { return m_status; }
    void setStatus(const VraxPlayLogicStatus& status) { m_status = status; }
    const VraxRoles& trackRoles() const { return m_trackRoles; }
    void setTrackRoles(const VraxRoles& roles) { m_trackRoles = roles; }

    QVariantHash toVariant() const;

    friend bool operator==(const VraxStreamerData& a, const VraxStreamerData& b);
    friend bool operator!=(const VraxStreamerData& a, const VraxStreamerData& b) { return !(a == b); }

private:
    VraxPlayLogicStatus m_status;
    VraxRoles m_trackRoles;
};

Q_DECLARE_METATYPE(VraxStreamerData)
