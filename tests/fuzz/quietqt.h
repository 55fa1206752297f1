#pragma once

// Readers report bad input through Qt's log; at millions of inputs that output would be
// most of the run's cost, and libFuzzer reports on streams of its own.
#include <QtGlobal>

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    return 0;
}
