#include "pipe.h"

void Pipe::onButtonClickedEvent(int id)
{
    emit uiEvent(id);
}
