#include "ContextMenu.h"

#include <QAbstractScrollArea>
#include <QMenu>

#include <utility>

void offerContextMenu(QAbstractScrollArea* area, QObject* context, std::function<QMenu*()> createMenu)
{
    area->setContextMenuPolicy(Qt::CustomContextMenu);
    QObject::connect(area, &QWidget::customContextMenuRequested, context,
                     [area, createMenu = std::move(createMenu)](const QPoint& at) {
                         QMenu* menu = createMenu();
                         menu->setAttribute(Qt::WA_DeleteOnClose);
                         menu->popup(area->viewport()->mapToGlobal(at));
                     });
}
