#pragma once

#include <QString>

#include <ostream>

// The outcome of a platform helper that can fail without a reply (parsing, conversion).
// Empty means success; otherwise it carries a message for people and log lines.
class VraxError
{
public:
    VraxError() = default;
    explicit VraxError(const QString& message) : m_message(message) {}

    bool isEmpty() const { return m_message.isEmpty(); }
    const QString& message() const { return m_message; }
    void clear() { m_message.clear(); }

private:
    QString m_message;
};

// Prints the message; nothing for an empty error.
std::ostream& operator<<(std::ostream& os, const VraxError& error);
