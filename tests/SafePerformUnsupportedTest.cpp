// The safe perform under an application object that is not a QZApplication (this executable
// runs a plain QCoreApplication): both entry points report it, and a handler that returns gets
// the call dropped.
#include "support/TestSupport.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZThreadProxy.h>

#include <memory>

using qztest::expectAssertion;
using qztest::processEventsUntil;

namespace {

struct Target {
    int calls = 0;
    void add(int n) { calls += n; }
    void touch() { ++calls; }
};

void expectUnsupported(const QZAssertionFailure &failure, const char *method, int line, const void *target)
{
    EXPECT_EQ(failure.method(), QLatin1String(method));
    EXPECT_EQ(failure.object(), target);
    EXPECT_EQ(failure.file(), QLatin1String("app-common/QZApp/QZApplication"));
    EXPECT_EQ(failure.line(), line);
    EXPECT_EQ(failure.description(), QLatin1String("safelyPerformSelectorOnMainThread not supported"));
}

TEST(SafePerformUnsupported, BothEntryPointsReportThePlainApplication)
{
    ASSERT_EQ(QZApplication::instance(), nullptr);
    auto target = std::make_shared<Target>();
    expectUnsupported(expectAssertion([&] { QZ::safelyPerformSelectorOnMainThread(target, &Target::add, 1); }),
                      "QZ::safelyPerformSelectorOnMainThread", 20, target.get());
    expectUnsupported(expectAssertion([&] { QZ::safelyPerformSelector(target, &Target::touch, 0.0); }),
                      "QZ::safelyPerformSelector", 32, target.get());
    // The safe main-thread proxy goes the same way for a void method.
    Target plain;
    expectUnsupported(expectAssertion([&] { QZ::safeMainThreadProxy(&plain).call(&Target::add, 2); }),
                      "QZ::safelyPerformSelectorOnMainThread", 20, &plain);
}

TEST(SafePerformUnsupported, AReturningHandlerGetsTheCallDropped)
{
    struct Counting : QZAssertionHandler {
        int reports = 0;
        void handleFailureInMethod(const char *, const void *, const char *, int, const QString &) override { ++reports; }
    } counting;
    QZAssertionHandler::setCurrentHandler(&counting);
    auto target = std::make_shared<Target>();
    QZ::safelyPerformSelectorOnMainThread(target, &Target::add, 1);
    QZ::safelyPerformSelector(target, &Target::add, 1, 0.0);
    QZAssertionHandler::setCurrentHandler(nullptr);
    EXPECT_EQ(counting.reports, 2);
    EXPECT_FALSE(processEventsUntil([&] { return target->calls != 0; }, 200));
    EXPECT_EQ(target.use_count(), 1);   // nothing holds it any more
}

} // namespace
