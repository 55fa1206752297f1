#pragma once

#include "ui.h"

// A window that takes keys and events while nobody sees it.
class DummyUi : public Ui {
    Q_OBJECT
public:
    explicit DummyUi(const char* language);

    void show(bool visible);
};
