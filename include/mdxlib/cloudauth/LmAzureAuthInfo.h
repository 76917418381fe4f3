// The client credentials of an Azure application: tenant, client and secret.
#pragma once

#include <QByteArray>

struct LmAzureAuthInfo
{
    QByteArray tenantId;
    QByteArray clientId;
    QByteArray clientSecret;
};
