// Opening the credentials file an environment variable names, as the Azure
// and Google credential classes both do, with the failure lines they log.
#pragma once

#include <QFile>

// Opens for reading the file that the environment variable names (text
// mode when asked: line ends become '\n'). False, with one error line,
// when the variable is not set ("Environment variable <name> not defined"),
// the file does not exist ("<fileKind> <path> does not exist") or cannot be
// opened ("Could not open <path>: <reason>").
bool openCredentialsFile(char const* variable, char const* fileKind, bool text, QFile& file);
