#include "play/vraxplaylogicdata.h"
#include "play/vraxservices.h"

QVariantHash VraxPlayLogicControls::toVariant() const
{
    return {{QStringLiteral("pause"), m_pause},
            {QStringLiteral("stop"), m_stop},
            {QStringLiteral("next"), m_next},
            {QStringLiteral("previous"), m_previous},
            {QStringLiteral("seek"), m_seek}};
}

bool operator==(const VraxPlayLogicControls& a, const VraxPlayLogicControls& b)
{
    return a.m_pause == b.m_pause && a.m_stop == b.m_stop && a.m_next == b.m_next && a.m_previous == b.m_previous
        && a.m_seek == b.m_seek;
}

QVariantHash VraxPlayLogicData::toVariant() const
{
    return {{QStringLiteral("state"), m_state},
            {QStringLiteral("controls"), m_controls.toVariant()},
            {QStringLiteral("status"), m_status.toVariant()},
            {QStringLiteral("trackRoles"), m_trackRoles.toVariant()},
            {QStringLiteral("playTime"), m_playTime}};
}

bool operator==(const VraxPlayLogicData& a, const VraxPlayLogicData& b)
{
    return a.m_state == b.m_state && a.m_controls == b.m_controls && a.m_status == b.m_status
        && a.m_trackRoles == b.m_trackRoles && a.m_playTime == b.m_playTime;
}

QString VraxService_Orvello_Id()
{
    return QStringLiteral("orvello");
}

QString VraxService_Orvello_Icon()
{
    return QStringLiteral("qrc:/vrax/services/orvello.svg");
}

QString MimeTypes::Audio::unknown()
{
    return QStringLiteral("audio/unknown");
}
