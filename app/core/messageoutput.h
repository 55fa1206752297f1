#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

// The log line of the whole system on standard output:
// "dd.MM.yyyy hh:mm:ss: Debug: text (file:line, function)".
void myMessageOutput(QtMsgType type, const QMessageLogContext& context, const QString& text);
