#pragma once

#include <QObject>
#include <QString>

// The window's widgets by object name, as the form names them; a missing one ends the test program.
template <typename T>
T* child(QObject* parent, const char* name)
{
    T* found = parent->findChild<T*>(QString::fromLatin1(name));
    if (!found)
        qFatal("no child %s", name);
    return found;
}
