#pragma once

#include <QHash>
#include <QMetaType>
#include <QString>

#include <ostream>

// A node path: a '/'-separated string such as "orvello/browse".
class CMPath
{
public:
    CMPath() = default;
    explicit CMPath(const QString& path) : m_path(path) {}

    // Appends "/" + subpath to this path (the empty path becomes subpath itself).
    CMPath& appendSubpath(const QString& subpath);

    const QString& toString() const { return m_path; }
    bool isEmpty() const { return m_path.isEmpty(); }
    // True when this path equals prefix or lies below it.
    bool startsWith(const CMPath& prefix) const;

    friend bool operator==(const CMPath& a, const CMPath& b) { return a.m_path == b.m_path; }
    friend bool operator!=(const CMPath& a, const CMPath& b) { return a.m_path != b.m_path; }
    friend bool operator<(const CMPath& a, const CMPath& b) { return a.m_path < b.m_path; }

private:
    QString m_path;
};

inline uint qHash(const CMPath& path, uint seed = 0) { return qHash(path.toString(), seed); }
std::ostream& operator<<(std::ostream& os, const CMPath& path);

Q_DECLARE_METATYPE(CMPath)
