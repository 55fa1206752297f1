#pragma once

#include <QObject>
#include <QProcess>
#include <QString>

// Hides and shows an annotation toolbar during the automatic calibration by starting its
// helper programs, when they are installed.
class SlateworkSDKHelper : public QObject {
    Q_OBJECT
public:
    QString hidePath = QStringLiteral("SDK\\Slatework\\Slatework_SDK_HideAnnotationWindow.exe");
    QString showPath = QStringLiteral("SDK\\Slatework\\Slatework_SDK_ShowAnnotationWindow.exe");
    QProcess process;

    void hideSlateworkAnnotationToolbar();
    void showSlateworkAnnotationToolbar();

private:
    void startIfPresent(const QString& path);
};
