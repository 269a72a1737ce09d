// Localised texts, and work posted to the main thread's event loop (waiting and delayed performs
// are shown through the thread proxies built on them).
#include "support/TestSupport.h"

#include <QZApp/QZLocalizedString.h>
#include <QZApp/QZMainThread.h>

#include <QTranslator>

#include <thread>

namespace {

TEST(LocalizedString, UsesTheHostsTranslationElseTheEnglishText)
{
    struct French : QTranslator {
        QString translate(const char *context, const char *source, const char *, int) const override
        {
            return qstrcmp(context, "QZApp") || qstrcmp(source, "Sending\\U2026") ? QString() : QStringLiteral("Envoi\u2026");
        }
        bool isEmpty() const override { return false; }
    } french;
    EXPECT_EQ(QZLocalizedString("Sending\\U2026"), QStringLiteral("Sending\u2026"));
    EXPECT_EQ(QZLocalizedString("U2026"), QStringLiteral("U2026"));
    QCoreApplication::installTranslator(&french);
    EXPECT_EQ(QZLocalizedString("Sending\\U2026"), QStringLiteral("Envoi\u2026"));
    QCoreApplication::removeTranslator(&french);
}

TEST(MainThread, PostedWorkRunsOnTheMainThreadInOrder)
{
    std::vector<int> ran;   // touched only on the main thread
    std::thread([&] {
        EXPECT_FALSE(QZ::isMainThread());
        for (int i = 0; i < 200; ++i)
            QZ::performOnMainThread([&, i] {
                EXPECT_TRUE(QZ::isMainThread());
                ran.push_back(i);
            });
    }).join();
    EXPECT_TRUE(ran.empty());   // nothing runs until the event loop does
    ASSERT_TRUE(qztest::processEventsUntil([&] { return ran.size() == 200; }));
    EXPECT_TRUE(std::is_sorted(ran.begin(), ran.end()));
}

} // namespace
