#include "loadingscreen.h"

#include <QUrl>

LoadingScreen::LoadingScreen()
{
    connect(this, &LoadingScreen::showSignal, this, &LoadingScreen::uiShow);
    setSource(QUrl("qrc:/qml/LoadingScreen.qml"));
}

void LoadingScreen::showScreen(bool visible)
{
    emit showSignal(visible);
}

void LoadingScreen::uiShow(bool visible)
{
    if (visible)
        showFullScreen();
    else
        hide();
}
