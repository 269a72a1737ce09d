// The reference helper under attack, and polkit deciding for real. The helper runs as root
// through the tests' set-user-id launcher for a client of user nobody, whom polkit allows; user
// daemon, whom polkit denies, is also the attacker: it plants links, FIFOs and folder swaps in a
// folder it owns. After every case the victim tree, which only root may change, is as it was.
#include "HelperTestSupport.h"
#include "PolkitEnvironment.h"

#include <QZApp/helper/helper_command.h>

#include <QCryptographicHash>
#include <QDirIterator>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

using qztest::kAllowedUser;
using qztest::kDeniedUser;
using qztest::tool;

namespace {

// A listing of every object under `root` with its type, mode, owners, access list and content.
QByteArray checksumListing(const QByteArray &root)
{
    QByteArray listing;
    QDirIterator it(QFile::decodeName(root), QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    QStringList paths { QFile::decodeName(root) };
    while (it.hasNext())
        paths.append(it.next());
    paths.sort();
    for (const QString &path : paths) {
        const QByteArray native = QFile::encodeName(path);
        struct stat st;
        QFile file(path);
        if (lstat(native.constData(), &st) != 0)
            continue;
        const QByteArray content = S_ISREG(st.st_mode) && file.open(QIODevice::ReadOnly)
            ? QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha256).toHex() : QByteArray();
        listing += native.mid(root.size()) + ' ' + QByteArray::number(st.st_mode, 8) + ' '
            + QByteArray::number(st.st_uid) + ':' + QByteArray::number(st.st_gid) + ' ' + qztest::aclText(native) + ' ' + content + '\n';
    }
    return listing;
}

// A victim tree only root may change, a folder of the attacker and one the client may not
// write to; the helper runs as root through the launcher for clients of other users.
class HelperAttack : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(polkit.failure(), QByteArray());
        victim.write("secret", "for root only", 0600);
        victim.write("x", "root's x", 0644);
        ASSERT_EQ(mkdir(victim.path("inner").constData(), 0755), 0);
        victim.write("inner/deep", "deep inside", 0600);
        ASSERT_EQ(mkdir(attacker().constData(), 0755), 0);
        ASSERT_EQ(chown(attacker().constData(), kDeniedUser, kDeniedUser), 0);
        ASSERT_EQ(mkdir(closed.path("drop").constData(), 0755), 0);
        before = checksumListing(victim.path());
        ASSERT_FALSE(before.isEmpty());
    }
    void TearDown() override { EXPECT_EQ(checksumListing(victim.path()).toStdString(), before.toStdString()); }
    QByteArray attacker(const char *name = "") const { return closed.path("attacker/") + name; }
    // Runs `body` as the attacker; true when it returned 0.
    static bool asAttacker(const std::function<int()> &body) { return qztest::runAsUser(kDeniedUser, body) == 0; }
    // Runs `body` as a client of the helper of user `user`; its exit status.
    static int asClient(uid_t user, const std::function<int()> &body)
    {
        return qztest::runAsUser(user, [&] {
            tool()->setHelperPath(QFile::decodeName(qztest::SafeLauncherFolder::rootLauncher()));
            const int result = body();
            tool()->terminateHelper();
            return result;
        });
    }
    const qztest::PolkitEnvironment polkit;
    const qztest::Folder victim { 0755 }, closed { 0755 };
    QByteArray before;
};

// The status of access for `path` with `flags` and `mode`; a descriptor received is closed.
int32_t openStatus(const QByteArray &path, unsigned flags, unsigned mode = 0, unsigned kind = 2)
{
    int fd = -1;
    const int32_t status = auth_openx(path.constData(), flags, mode, kind, "", &fd);
    if (fd >= 0)
        close(fd);
    return status;
}

// True when an echo of `text` comes back.
bool echoes(const char *text = "ping")
{
    void *reply = &reply;   // a reply without data gives a null pointer
    uint32_t length = 99;
    const bool back = c_echo(text, &reply, &length) == 0 && length == std::strlen(text)
        && (length ? std::memcmp(reply, text, length) == 0 : reply == nullptr);
    std::free(reply);
    return back;
}

TEST_F(HelperAttack, LinksOfOthersRelativePathsFifosAndSetUserIdModes)
{
    const QByteArray secret = victim.path("secret");
    ASSERT_TRUE(asAttacker([&] {
        return symlink(secret.constData(), attacker("final").constData()) != 0
            || symlink(victim.path().constData(), attacker("parent").constData()) != 0
            || mkfifo(attacker("fifo").constData(), 0666) != 0;
    }));
    // Links of root are followed, up to 40 of them in a row.
    for (int i = 0; i < 41; ++i) {
        const QByteArray target = i == 40 ? secret : closed.path("chain") + QByteArray::number(i + 1);
        ASSERT_EQ(symlink(target.constData(), (closed.path("chain") + QByteArray::number(i)).constData()), 0);
    }
    ASSERT_EQ(mkdir(closed.path("client").constData(), 0755), 0);
    ASSERT_EQ(chown(closed.path("client").constData(), kAllowedUser, kAllowedUser), 0);
    const QByteArray drop = closed.path("drop/new");
    const int result = asClient(kAllowedUser, [&] {
        // Through the attacker's links, as a final and as a parent component.
        EXPECT_IN_CHILD(openStatus(attacker("final"), O_RDONLY) == ELOOP);
        EXPECT_IN_CHILD(openStatus(attacker("final"), O_WRONLY | O_TRUNC) == ELOOP);
        EXPECT_IN_CHILD(openStatus(attacker("parent/secret"), O_RDONLY) == ELOOP);
        EXPECT_IN_CHILD(openStatus(attacker("parent/made"), O_CREAT | O_WRONLY, 0644, 1) == ELOOP);
        EXPECT_IN_CHILD(auth_chown(attacker("parent/secret").constData(), kAllowedUser, kAllowedUser) == -1 && errno == ELOOP);
        EXPECT_IN_CHILD(auth_unlink(attacker("parent/x").constData()) == -1 && errno == ELOOP);
        EXPECT_IN_CHILD(authorise_access(attacker("parent/secret").constData(), 7, kAllowedUser) == ELOOP);
        EXPECT_IN_CHILD(authorise_global(attacker("parent/inner").constData(), 7) == ELOOP);
        EXPECT_IN_CHILD(revoke_access(attacker("parent/..").constData(), 0) == ELOOP);
        // The client's own links and root's are followed; a chain of 41 is not.
        EXPECT_IN_CHILD(symlink(secret.constData(), closed.path("client/mine").constData()) == 0);
        EXPECT_IN_CHILD(openStatus(closed.path("client/mine"), O_RDONLY) == 0);
        EXPECT_IN_CHILD(openStatus(closed.path("chain1"), O_RDONLY) == 0);
        EXPECT_IN_CHILD(openStatus(closed.path("chain0"), O_RDONLY) == ELOOP);
        // Relative paths.
        EXPECT_IN_CHILD(auth_unlink("x") == -1 && errno == EINVAL);
        EXPECT_IN_CHILD(openStatus("etc/shadow", O_RDONLY) == EINVAL);
        // A FIFO answers at once, and the helper serves on; so does a socket.
        EXPECT_IN_CHILD(openStatus(attacker("fifo"), O_RDONLY) == EPERM);
        EXPECT_IN_CHILD(openStatus(attacker("fifo"), O_WRONLY) == EPERM);
        // The kernel's own files.
        EXPECT_IN_CHILD(openStatus("/proc/self/mem", O_RDWR) == EACCES);
        EXPECT_IN_CHILD(openStatus("/proc/1/environ", O_RDONLY) == EACCES);
        EXPECT_IN_CHILD(openStatus("/sys/kernel", O_RDONLY | O_DIRECTORY) == EACCES);
        // A device node needs its own authority, which this client has.
        EXPECT_IN_CHILD(openStatus("/dev/null", O_WRONLY) == 0);
        // A set-user-id creation mode.
        EXPECT_IN_CHILD(openStatus(drop, O_CREAT | O_WRONLY, 06755, 1) == 0);
        EXPECT_IN_CHILD(echoes());
        return 0;
    });
    EXPECT_EQ(result, 0);
    struct stat st;
    ASSERT_EQ(stat(drop.constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 07000, 0u);
    EXPECT_EQ(st.st_uid, kAllowedUser);
}

// Polkit denies user daemon everything but echo, and a path that does not exist tells it
// nothing; user nobody may do all of it, also through the packaged pkexec launcher.
TEST_F(HelperAttack, PolkitAllowsOneUserAndDeniesAnother)
{
    const QByteArray secret = victim.path("secret"), x = victim.path("x");
    const auto commands = [&](int expected) {
        EXPECT_IN_CHILD(openStatus(secret, O_RDONLY) == expected);
        EXPECT_IN_CHILD(openStatus(closed.path("drop/made"), O_CREAT | O_WRONLY, 0644, 1) == expected);
        EXPECT_IN_CHILD(openStatus("/dev/null", O_RDONLY) == expected);
        EXPECT_IN_CHILD(auth_chown(closed.path("drop/made").constData(), 0, 0) == (expected ? -1 : 0));
        EXPECT_IN_CHILD(authorise_access(closed.path("drop/made").constData(), 4, 7) == expected);
        EXPECT_IN_CHILD(revoke_access(closed.path("drop/made").constData(), 7) == expected);
        EXPECT_IN_CHILD(authorise_global(closed.path("drop/made").constData(), 4) == expected);
        EXPECT_IN_CHILD(auth_unlink(closed.path("drop/made").constData()) == (expected ? -1 : 0));
        EXPECT_IN_CHILD(auth_unlink(closed.path("drop/missing").constData()) == -1 && errno == (expected ? expected : ENOENT));
        EXPECT_IN_CHILD(echoes());
        return 0;
    };
    EXPECT_EQ(asClient(kDeniedUser, [&] { return commands(EACCES); }), 0);
    EXPECT_EQ(asClient(kDeniedUser, [&] { return auth_unlink(x.constData()) == -1 && errno == EACCES ? 0 : 1; }), 0);
    // What only root may do, for the allowed client: files made for it or for root; chown and
    // unlink never follow a final link; the C interface also works from C.
    const QByteArray own = closed.write("own", "", 0600), link = closed.path("link");
    const QByteArray mine = closed.path("drop/mine"), roots = closed.path("drop/roots");
    ASSERT_EQ(symlink(own.constData(), link.constData()), 0);
    EXPECT_EQ(asClient(kAllowedUser, [&] {
        EXPECT_IN_CHILD(commands(0) == 0);
        int fd = auth_open(mine.constData(), O_CREAT | O_WRONLY | AUTH_O_CALLER_OWNS, 0640);
        EXPECT_IN_CHILD(fd >= 0 && write(fd, "mine", 4) == 4 && close(fd) == 0);
        fd = auth_open(roots.constData(), O_CREAT | O_WRONLY, 0640);
        EXPECT_IN_CHILD(fd >= 0 && close(fd) == 0);
        EXPECT_IN_CHILD(auth_chown(own.constData(), kAllowedUser, kAllowedUser) == 0 && auth_chown(link.constData(), 1, 2) == 0);
        EXPECT_IN_CHILD(auth_unlink(link.constData()) == 0 && auth_unlink(link.constData()) == -1 && errno == ENOENT);
        EXPECT_IN_CHILD(echoes("") && echoes("from C"));
        return 0;
    }), 0);
    struct stat st;
    ASSERT_EQ(stat(mine.constData(), &st), 0);
    EXPECT_TRUE(st.st_uid == kAllowedUser && (st.st_mode & 07777) == 0640u && st.st_size == 4) << st.st_uid << " " << st.st_mode;
    ASSERT_EQ(stat(roots.constData(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    ASSERT_EQ(stat(own.constData(), &st), 0);
    EXPECT_TRUE(st.st_uid == kAllowedUser && st.st_gid == kAllowedUser);
    EXPECT_EQ(lstat(link.constData(), &st), -1);
    const int result = qztest::runAsUser(kAllowedUser, [&] {
        tool()->setHelperPath(QFile::decodeName(qztest::SafeLauncherFolder::pkexecLauncher()));
        char text[32] = {};
        const int fd = auth_open(secret.constData(), O_RDONLY);
        EXPECT_IN_CHILD(fd >= 0 && read(fd, text, sizeof text) == 13 && std::strcmp(text, "for root only") == 0);
        close(fd);
        tool()->terminateHelper();
        return 0;
    });
    EXPECT_EQ(result, 0);
}

// For ten seconds (or 3,000 rounds) the attacker swaps a folder of its own for a link to the
// victim tree while the client chowns, grants, truncates and deletes a file in that folder.
TEST_F(HelperAttack, FolderSwappedForALinkDuringCommands)
{
    ASSERT_TRUE(asAttacker([&] {
        return mkdir(attacker("real").constData(), 0755) != 0
            || symlink(victim.path().constData(), attacker("swap").constData()) != 0;
    }));
    const pid_t swapper = fork();
    if (swapper == 0) {
        if (setgroups(0, nullptr) != 0 || setgid(kDeniedUser) != 0 || setuid(kDeniedUser) != 0)
            _exit(120);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(11);
        for (long i = 0; i < 5000000 && std::chrono::steady_clock::now() < deadline; ++i) {
            // "real" is the folder or the link, in turn; the file in the folder comes back.
            renameat2(AT_FDCWD, attacker("real").constData(), AT_FDCWD, attacker("swap").constData(), RENAME_EXCHANGE);
            close(open(attacker("real/x").constData(), O_WRONLY | O_CREAT | O_NOFOLLOW, 0644));
        }
        _exit(0);
    }
    ASSERT_GT(swapper, 0);
    const QByteArray x = attacker("real/x");
    const int result = asClient(kAllowedUser, [&] {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int done = 0;
        for (int round = 0; round < 3000 && std::chrono::steady_clock::now() < deadline; ++round) {
            done += auth_chown(x.constData(), kAllowedUser, kAllowedUser) == 0;
            done += authorise_global(x.constData(), 7) == 0;
            done += openStatus(x, O_WRONLY | O_TRUNC) == 0;
            done += auth_unlink(x.constData()) == 0;
        }
        return done > 0 ? 0 : 1;   // the commands did act, on the attacker's own folder
    });
    kill(swapper, SIGKILL);
    waitpid(swapper, nullptr, 0);
    EXPECT_EQ(result, 0);
}

} // namespace
