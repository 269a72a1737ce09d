// QZResourceHolder: exactly one release, in each of its forms.
#include "support/TestSupport.h"

#include <QZApp/QZResourceHolder.h>

#include <QObject>

namespace {

int releases = 0;
void countRelease(void *resource)
{
    ++releases;
    delete static_cast<int *>(resource);
}

TEST(ResourceHolder, ReleasesARawResourceOnce)
{
    releases = 0;
    {
        auto holder = QZResourceHolder::holderWithResource(new int(7), countRelease);
        EXPECT_EQ(*static_cast<int *>(holder->resource()), 7);
        holder->releaseResource();
        holder->releaseResource();
        EXPECT_EQ(holder->resource(), nullptr);
    }
    EXPECT_EQ(releases, 1);   // the destructor did nothing more
    {
        QZResourceHolder nothing(nullptr, countRelease);
    }
    EXPECT_EQ(releases, 1);
}

struct Connection {
    int *closes;
    void close() { ++*closes; }
};

TEST(ResourceHolder, CallsTheObjectsMethodAndLetsItGo)
{
    int closes = 0;
    auto connection = std::make_shared<Connection>(Connection { &closes });
    std::weak_ptr<Connection> watch = connection;
    {
        auto holder = QZResourceHolder::holderWithObject(std::move(connection), &Connection::close);
        EXPECT_FALSE(watch.expired());   // the holder shares ownership
    }
    EXPECT_EQ(closes, 1);
    EXPECT_TRUE(watch.expired());
}

class Closable : public QObject
{
    Q_OBJECT
public:
    explicit Closable(int *closes) : m_closes(closes) {}
    Q_INVOKABLE void close() { ++*m_closes; }
private:
    int *m_closes;
};

TEST(ResourceHolder, QObjectFormDeletesAfterTheMethodAndReportsUnknownNames)
{
    int closes = 0;
    auto *object = new Closable(&closes);
    bool destroyed = false;
    QObject::connect(object, &QObject::destroyed, [&] { destroyed = true; });
    QZResourceHolder::holderWithObject(object, "close")->releaseResource();
    EXPECT_EQ(closes, 1);
    EXPECT_TRUE(destroyed);

    auto holder = QZResourceHolder::holderWithObject(new Closable(&closes), "shutDown");
    const QZAssertionFailure failure = qztest::expectAssertion([&] { holder->releaseResource(); });
    EXPECT_TRUE(failure.description().contains(QLatin1String("shutDown")));
    EXPECT_EQ(holder->resource(), nullptr);   // let go all the same
}

} // namespace

#include "ResourceHolderTest.moc"
