// qzutil mail | whoami-email: sending a message through the user's mail client, and the
// current user's e-mail address.
#include "Command.h"

#include <QZApp/QZEmailAddress_p.h>
#include <QZMail/QZMailClient.h>
#include <QZMail/QZMailClients_p.h>

#include <QTextCursor>
#include <QTextDocument>

namespace qzutil {
namespace {

int mail(const Invocation &invocation)
{
    if (!invocation.operands().isEmpty() || invocation.value("to").isEmpty() || !invocation.isSet("subject"))
        return usage("mail");
    QTextDocument message;
    QTextCursor cursor(&message);
    cursor.insertText(invocation.value("body"));
    const QStringList attachments = invocation.values("attach");
    if (!attachments.isEmpty())
        cursor.insertText(QStringLiteral("\n"));
    for (const QString &path : attachments)
        QZ::insertMailAttachment(cursor, path);

    QVariantMap headers{ { QStringLiteral("To"), invocation.value("to") },
                         { QStringLiteral("Subject"), invocation.value("subject") } };
    if (!invocation.value("from").isEmpty())
        headers.insert(QStringLiteral("From"), invocation.value("from"));

    std::shared_ptr<QZMailClient> client;
    if (invocation.isSet("compose")) {
        if (QZComposeMailClient::isAvailable())
            client = std::make_shared<QZComposeMailClient>();
    } else {
        client = QZMailClient::defaultClient();
    }
    if (!client)
        return fail(QStringLiteral("no e-mail client configured"));
    QZError error;
    const bool done = client->supportsFeature(QZMailClient::ComposesForUser)
            ? client->constructMessage(message, headers, &error)
            : client->deliverMessage(message, headers, &error);
    if (!done)
        return fail(QStringLiteral("%1 (%2 %3)").arg(error.message(), error.domain()).arg(error.code()));
    return Success;
}

int whoamiEmail(const Invocation &invocation)
{
    if (!invocation.operands().isEmpty())
        return usage("whoami-email");
    const QZ::detail::EmailAddressLookup found = QZ::detail::lookUpEmailAddressForCurrentUser();
    if (found.address.isNull())
        return fail(QStringLiteral("no e-mail address found"));
    printLine(found.address);
    printLine(found.source);
    return Success;
}

QZUTIL_COMMAND(.name = "mail", .usage = "--to ADDR --subject TEXT [--body TEXT] [--attach FILE]... [--from ADDR] [--compose]",
               .summary = "send a plain message through the default mail client, or compose it", .run = mail,
               .options = { { "to", "ADDR", "the recipient, \"Name <address>\" or an address" },
                            { "subject", "TEXT", "the subject" },
                            { "body", "TEXT", "the message text" },
                            { "attach", "FILE", "attach a file; may be given more than once" },
                            { "from", "ADDR", "the sender, for clients that let it be given" },
                            { "compose", nullptr, "open the message in the user's mail program instead of\n"
                                                  "sending it" } });

QZUTIL_COMMAND(.name = "whoami-email", .usage = "",
               .summary = "print the current user's e-mail address and where it was found", .run = whoamiEmail);

} // namespace
} // namespace qzutil
