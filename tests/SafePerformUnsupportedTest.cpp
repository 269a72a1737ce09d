// Under a plain QCoreApplication every safe perform reports it; a returning handler drops the call.
#include "support/TestSupport.h"

#include <QZApp/QZThreadProxy.h>

namespace {

TEST(SafePerformUnsupported, EveryEntryPointReportsThePlainApplication)
{
    auto calls = std::make_shared<int>(0);
    const auto add = [](int &total, int n) { total += n; };
    const std::tuple<std::function<void()>, const char *, int> entries[] = {
        { [&] { QZ::safelyPerformSelectorOnMainThread(calls, add, 1); }, "QZ::safelyPerformSelectorOnMainThread", 20 },
        { [&] { QZ::safelyPerformSelector(calls, add, 1, 0.0); }, "QZ::safelyPerformSelector", 32 },
        { [&] { QZ::safeMainThreadProxy(calls.get()).call(add, 1); }, "QZ::safelyPerformSelectorOnMainThread", 20 },
    };
    for (const auto &[operation, method, line] : entries) {
        const QZAssertionFailure failure = qztest::expectAssertion(operation);
        EXPECT_EQ(failure.method(), QLatin1String(method));
        EXPECT_EQ(failure.object(), calls.get());
        EXPECT_EQ(failure.file(), QLatin1String("app-common/QZApp/QZApplication"));
        EXPECT_EQ(failure.line(), line);
        EXPECT_EQ(failure.description(), QLatin1String("safelyPerformSelectorOnMainThread not supported"));
    }
    struct Returning : QZAssertionHandler {
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override {}
    } returning;
    QZAssertionHandler::setCurrentHandler(&returning);
    QZ::safelyPerformSelectorOnMainThread(calls, add, 1);
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_FALSE(qztest::processEventsUntil([&] { return *calls != 0; }, 200));
    EXPECT_EQ(calls.use_count(), 1);   // dropped: nothing holds it any more
}

} // namespace
