#include "model/cmpath.h"
#include "vrax/dbglog.h"

CMPath& CMPath::appendSubpath(const QString& subpath)
{
    m_path = m_path.isEmpty() ? subpath : m_path + QLatin1Char('/') + subpath;
    return *this;
}

bool CMPath::startsWith(const CMPath& prefix) const
{
    return m_path == prefix.m_path || m_path.startsWith(prefix.m_path + QLatin1Char('/'));
}

std::ostream& operator<<(std::ostream& os, const CMPath& path)
{
    return os << path.toString();
}
