// QZResourceHolder: exactly one release, in each of its forms.
#include "support/TestSupport.h"

#include <QZApp/QZResourceHolder.h>

#include <QObject>

namespace {

int releases = 0;

class Closable : public QObject
{
    Q_OBJECT
public:
    Q_INVOKABLE void close() { ++releases; }
};

TEST(ResourceHolder, ReleasesOnceInEachFormAndReportsUnknownMethodNames)
{
    {
        auto holder = QZResourceHolder::holderWithResource(new int(7), [](void *resource) {
            ++releases;
            delete static_cast<int *>(resource);
        });
        holder->releaseResource();
        holder->releaseResource();
        EXPECT_EQ(holder->resource(), nullptr);
        QZResourceHolder nothing(nullptr, [](void *) { ++releases; });
    }
    EXPECT_EQ(releases, 1);   // neither the destructors nor the empty holder released more

    auto shared = std::make_shared<Closable>();
    std::weak_ptr<Closable> watch = shared;
    {
        auto holder = QZResourceHolder::holderWithObject(std::move(shared), &Closable::close);
        EXPECT_FALSE(watch.expired());   // the holder shares ownership
    }
    EXPECT_EQ(releases, 2);
    EXPECT_TRUE(watch.expired());

    auto *object = new Closable;
    bool destroyed = false;
    QObject::connect(object, &QObject::destroyed, [&] { destroyed = releases == 3; });   // after the method
    QZResourceHolder::holderWithObject(object, "close")->releaseResource();
    EXPECT_TRUE(destroyed);

    auto holder = QZResourceHolder::holderWithObject(new Closable, "shutDown");
    EXPECT_TRUE(qztest::expectAssertion([&] { holder->releaseResource(); }).description().contains(QLatin1String("shutDown")));
    EXPECT_EQ(holder->resource(), nullptr);   // let go all the same
}

} // namespace

#include "ResourceHolderTest.moc"
