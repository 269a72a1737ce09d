// An error value: a domain, an integer code and a message, carried inside a QVariant.
//
// This is what error futures resolve with; an invalid QVariant stands for "no error".
#pragma once

#include <QZApp/QZGlobal.h>

#include <QMetaType>
#include <QString>
#include <QVariant>

class QZError
{
public:
    QZError() = default;
    QZError(const QString &domain, qint64 code, const QString &message = QString())
        : m_domain(domain), m_code(code), m_message(message) {}

    QString domain() const { return m_domain; }     // e.g. "QZBugReporterErrorDomain"
    qint64 code() const { return m_code; }          // an errno value, a status code, ...
    QString message() const { return m_message; }   // the user-visible description

    // The error inside a QVariant, as futures carry it.
    QVariant toVariant() const { return QVariant::fromValue(*this); }

    friend bool operator==(const QZError &a, const QZError &b)
    {
        return a.m_domain == b.m_domain && a.m_code == b.m_code && a.m_message == b.m_message;
    }
    friend bool operator!=(const QZError &a, const QZError &b) { return !(a == b); }

private:
    QString m_domain;
    qint64 m_code = 0;
    QString m_message;
};

Q_DECLARE_METATYPE(QZError)
