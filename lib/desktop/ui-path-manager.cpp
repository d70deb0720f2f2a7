#include "lib/desktop/ui-path-manager.h"

UIPathManager* UIPathManager::getInstance() {
    // Made on first use; lives until the process ends.
    static UIPathManager instance;
    return &instance;
}

void UIPathManager::setPath(const QString& key, const QString& value) {
    paths.insert(key, value);
}

QString UIPathManager::getPath(const QString& key) {
    return paths.value(key);
}
