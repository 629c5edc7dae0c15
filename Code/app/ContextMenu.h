#pragma once

#include <functional>

class QAbstractScrollArea;
class QMenu;
class QObject;

// A right click in `area` pops up at the pointer the menu `createMenu` makes afresh each time; the menu
// deletes itself once closed. The offer lasts as long as `context`.
void offerContextMenu(QAbstractScrollArea* area, QObject* context, std::function<QMenu*()> createMenu);
