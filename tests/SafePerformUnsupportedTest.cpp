// The safe perform when the application object is not a QZApplication (this executable runs a
// plain QCoreApplication): every entry point reports it, and a handler that returns gets the
// call dropped.
#include "support/TestSupport.h"

#include <QZApp/QZThreadProxy.h>

namespace {

struct Target {
    void add(int n) { calls += n; }
    int calls = 0;
};

TEST(SafePerformUnsupported, EveryEntryPointReportsThePlainApplication)
{
    auto target = std::make_shared<Target>();
    const std::pair<std::function<void()>, std::pair<const char *, int>> entries[] = {
        { [&] { QZ::safelyPerformSelectorOnMainThread(target, &Target::add, 1); }, { "QZ::safelyPerformSelectorOnMainThread", 20 } },
        { [&] { QZ::safelyPerformSelector(target, &Target::add, 1, 0.0); }, { "QZ::safelyPerformSelector", 32 } },
        { [&] { QZ::safeMainThreadProxy(target.get()).call(&Target::add, 1); }, { "QZ::safelyPerformSelectorOnMainThread", 20 } },
    };
    for (const auto &[operation, site] : entries) {
        const QZAssertionFailure failure = qztest::expectAssertion(operation);
        EXPECT_EQ(failure.method(), QLatin1String(site.first));
        EXPECT_EQ(failure.object(), target.get());
        EXPECT_EQ(failure.file(), QLatin1String("app-common/QZApp/QZApplication"));
        EXPECT_EQ(failure.line(), site.second);
        EXPECT_EQ(failure.description(), QLatin1String("safelyPerformSelectorOnMainThread not supported"));
    }
    struct Returning : QZAssertionHandler {
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override {}
    } returning;
    QZAssertionHandler::setCurrentHandler(&returning);
    QZ::safelyPerformSelectorOnMainThread(target, &Target::add, 1);
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_FALSE(qztest::processEventsUntil([&] { return target->calls != 0; }, 200));
    EXPECT_EQ(target.use_count(), 1);   // dropped: nothing holds it any more
}

} // namespace
