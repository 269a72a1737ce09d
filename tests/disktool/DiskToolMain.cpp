// Disk Tool's tests: a QZApplication on the offscreen platform and, as the superuser, a private
// mount namespace for the scratch volumes.
#include "Dialogs.h"

#include "support/ScratchVolumes.h"

#include <QZApp/QZApplication.h>

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    qztest::enterPrivateMountNamespace();
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QZApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("disktool-tests"));
    disktool::initResources();
    return RUN_ALL_TESTS();
}
