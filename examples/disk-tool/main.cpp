// Disk Tool: a small file utility built on QZApp, and a tour of the framework.
//
//     disktool                               the window
//     disktool --tour [--screenshots DIR]    every subsystem once, without a display
#include "BugReports.h"
#include "Dialogs.h"
#include "MainWindow.h"
#include "Tour.h"

#include <QZApp/QZApplication.h>
#include <QZApp/QZBugReporter.h>

#include <QCommandLineParser>
#include <QDir>
#include <QIcon>
#include <QStandardPaths>

#include <algorithm>
#include <cstring>

int main(int argc, char **argv)
{
    // The tour needs no display: it draws offscreen unless told otherwise.
    for (int i = 1; i < argc; ++i)
        if (std::strcmp(argv[i], "--tour") == 0 && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
            qputenv("QT_QPA_PLATFORM", "offscreen");

    if (std::any_of(argv + 1, argv + argc, [](const char *argument) { return std::strcmp(argument, "--tour") == 0; }))
        disktool::quietPlatformMessages();
    QZApplication app(argc, argv);
    disktool::initResources();
    QCoreApplication::setOrganizationName(QStringLiteral("example.org"));
    QCoreApplication::setOrganizationDomain(QStringLiteral("example.org"));
    QCoreApplication::setApplicationName(QStringLiteral("disktool"));
    QCoreApplication::setApplicationVersion(QStringLiteral(DISKTOOL_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("org.example.disktool"));
    // Without a desktop's own icon theme, Adwaita's icons (Disk Tool's own after that).
    // (A platform without a desktop theme, such as offscreen, does not even search the usual
    // folders.)
    if (QIcon::themeName().isEmpty() || QIcon::themeName() == QStringLiteral("hicolor")) {
        QStringList paths = QIcon::themeSearchPaths();
        for (const QString &folder : QStandardPaths::locateAll(QStandardPaths::GenericDataLocation, QStringLiteral("icons"),
                                                               QStandardPaths::LocateDirectory))
            if (!paths.contains(folder))
                paths.append(folder);
        QIcon::setThemeSearchPaths(paths);
        QIcon::setThemeName(QStringLiteral("Adwaita"));
    }
    QGuiApplication::setWindowIcon(QIcon::fromTheme(QStringLiteral("org.example.disktool"),
                                                    QIcon(QStringLiteral(":/icons/org.example.disktool.svg"))));

    // A crash leaves a report that the next "Crasher Bug" report takes along. The handler names
    // it after the product, so the reporter learns Disk Tool's first.
    disktool::bugReporter();
    QZBugReporter::installCrashHandler();

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Copies, deletes and repairs files and folders."));
    parser.addHelpOption();
    parser.addVersionOption();
    QCommandLineOption tour(QStringLiteral("tour"), QStringLiteral("Run through every subsystem on a scratch folder and exit."));
    QCommandLineOption screenshots(QStringLiteral("screenshots"), QStringLiteral("Save the tour's screenshots in DIR."),
                                   QStringLiteral("DIR"));
    parser.addOptions({ tour, screenshots });
    parser.process(app);

    if (parser.isSet(tour)) {
        const QString folder = parser.isSet(screenshots)
                ? parser.value(screenshots)
                : QStandardPaths::writableLocation(QStandardPaths::CacheLocation) + QStringLiteral("/tour");
        return disktool::runTour(folder);
    }

    // Run normally, Disk Tool's output goes to its log, where bug reports find it ("disktool.log"
    // in the user's Logs folder). The tour keeps its output on the terminal.
    if (!disktool::bugReporter()->redirectLogsTo(QStringLiteral("disktool.log")))
        qWarning("Disk Tool's output stays here: its log file cannot be opened");
    disktool::MainWindow window;
    window.show();
    return app.exec();
}
