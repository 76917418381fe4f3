#include "CredentialsFile.h"

#include <mdxlib/platform/McLogFile.h>

#include <QFileInfo>

#include <cstdlib>

bool openCredentialsFile(char const* variable, char const* fileKind, bool text, QFile& file)
{
    McLogFile& log = *getTheLogInstance();
    char const* path = std::getenv(variable);
    if (!path) {
        log.errorf("Environment variable %s not defined", variable);
        return false;
    }
    if (!QFileInfo::exists(QString::fromLocal8Bit(path))) {
        log.errorf("%s %s does not exist", fileKind, path);
        return false;
    }
    file.setFileName(QString::fromLocal8Bit(path));
    if (!file.open(text ? QIODevice::ReadOnly | QIODevice::Text : QIODevice::ReadOnly)) {
        log.errorf("Could not open %s: %s", path, file.errorString().toLocal8Bit().constData());
        return false;
    }
    return true;
}
