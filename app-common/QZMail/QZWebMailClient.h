// The web-mail client: delivers a message as an HTTPS form post to an endpoint that the
// application names for the recipient's domain.
#pragma once

#include <QZMail/QZMailClient.h>

class QZMAIL_EXPORT QZWebMailClient final : public QZMailClient
{
public:
    // The one web-mail client of the process.
    static std::shared_ptr<QZWebMailClient> mailClient();

    // True when an endpoint is configured for the address's domain: settings group
    // "QZMail/Web", one key per domain (lower case), the value an https: URL. An extra CA file
    // for the endpoints may be named by "QZMail/WebOptions/caFile".
    bool shouldUseClientToDeliverTo(const QString &address) const;

    int features() const override { return ThreadSafe | SenderAddress; }

    // Posts multipart/form-data with the fields "to", "from", "subject", "text" and "html" and
    // one "attachment" file field per attached file. A reply other than 2xx is a failure.
    bool deliverMessage(const QTextDocument &message, const QVariantMap &headers, QZError *error) override;

    QZWebMailClient() = default;
};
