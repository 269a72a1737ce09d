// Widgets for tests that drive real input through QTest under a QZApplication.
#pragma once

#include <QMouseEvent>
#include <QTest>
#include <QWidget>

#include <functional>

namespace qztest {

// A shown top-level widget that runs `onPress` from its mouse-press handler.
class PressWidget : public QWidget
{
public:
    PressWidget()
    {
        resize(120, 80);
        show();
        exposed = QTest::qWaitForWindowExposed(this);
    }

    std::function<void()> onPress;
    bool exposed = false;

protected:
    void mousePressEvent(QMouseEvent *) override
    {
        if (onPress)
            onPress();
    }
};

} // namespace qztest
