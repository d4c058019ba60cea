#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

#include <ostream>

// A URL as the platform passes it around: built from its encoded (percent-escaped) text.
class VraxUrl
{
public:
    VraxUrl() = default;
    explicit VraxUrl(const QUrl& url) : m_url(url) {}

    // Parses encoded URL text leniently; surrounding white space is dropped. Text that is no
    // URL at all gives a URL that is not valid (isValid() false); empty text gives an empty URL.
    static VraxUrl fromEncoded(const QByteArray& encoded);
    static VraxUrl fromEncoded(const QString& encoded);
    static VraxUrl fromEncoded(const char* encoded) { return fromEncoded(QByteArray(encoded)); }

    bool isEmpty() const { return m_url.isEmpty(); }
    bool isValid() const { return m_url.isValid(); }
    // The encoded form, as it goes on the wire.
    QString toString() const;
    const QUrl& toQUrl() const { return m_url; }

    friend bool operator==(const VraxUrl& a, const VraxUrl& b) { return a.m_url == b.m_url; }
    friend bool operator!=(const VraxUrl& a, const VraxUrl& b) { return a.m_url != b.m_url; }

private:
    QUrl m_url;
};

std::ostream& operator<<(std::ostream& os, const VraxUrl& url);
