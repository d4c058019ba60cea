#include "play/vraxplaydata.h"

#include <QVariantList>

namespace {
void registerPlayMetaTypes()
{
    qRegisterMetaType<VraxStreamerData>("VraxStreamerData");
}
} // namespace

Q_CONSTRUCTOR_FUNCTION(registerPlayMetaTypes)

QVariantHash VraxPlayLogicStatus::toVariant() const
{
    return {{QStringLiteral("duration"), m_duration}};
}

bool operator==(const VraxPlayLogicStatus& a, const VraxPlayLogicStatus& b)
{
    return a.m_duration == b.m_duration;
}

QVariantHash VraxMetaData::toVariant() const
{
    return {{QStringLiteral("album"), m_album},
            {QStringLiteral("artist"), m_artist},
            {QStringLiteral("serviceID"), m_serviceID},
            {QStringLiteral("playLogicPath"), m_playLogicPath.toString()}};
}

bool operator==(const VraxMetaData& a, const VraxMetaData& b)
{
    return a.m_album == b.m_album && a.m_artist == b.m_artist && a.m_serviceID == b.m_serviceID
           && a.m_playLogicPath == b.m_playLogicPath;
}

QVariantHash VraxResource::toVariant() const
{
    return {{QStringLiteral("uri"), m_uri}, {QStringLiteral("mimeType"), m_mimeType}};
}

bool operator==(const VraxResource& a, const VraxResource& b)
{
    return a.m_uri == b.m_uri && a.m_mimeType == b.m_mimeType;
}

QVariantHash VraxMediaData::toVariant() const
{
    QVariantList resources;
    for (const VraxResource& resource : m_resources)
        resources.append(resource.toVariant());
    return {{QStringLiteral("metaData"), m_metaData.toVariant()}, {QStringLiteral("resources"), resources}};
}

bool operator==(const VraxMediaData& a, const VraxMediaData& b)
{
    return a.m_metaData == b.m_metaData && a.m_resources == b.m_resources;
}

QVariantHash VraxRoles::toVariant() const
{
    return {{QStringLiteral("type"), static_cast<int>(m_type)},
            {QStringLiteral("title"), m_title.toString()},
            {QStringLiteral("icon"), m_icon},
            {QStringLiteral("mediaData"), m_mediaData.toVariant()}};
}

bool operator==(const VraxRoles& a, const VraxRoles& b)
{
    return a.m_type == b.m_type && a.m_title == b.m_title && a.m_icon == b.m_icon && a.m_mediaData == b.m_mediaData;
}

QVariantHash VraxStreamerData::toVariant() const
{
    return {{QStringLiteral("status"), m_status.toVariant()}, {QStringLiteral("trackRoles"), m_trackRoles.toVariant()}};
}

bool operator==(const VraxStreamerData& a, const VraxStreamerData& b)
{
    return a.m_status == b.m_status && a.m_trackRoles == b.m_trackRoles;
}
