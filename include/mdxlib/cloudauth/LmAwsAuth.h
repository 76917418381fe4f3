// Credentials and request signing for Amazon S3.
//
// LmAwsAuth turns an "s3://bucket/key" URL into a signed HTTPS request. It
// finds credentials on its own, first from the EC2 instance metadata service,
// then from the AWS configuration file, keeps them with their derived
// signing key, renews them when less than 120 seconds of life remain, and
// re-keys them at the UTC day change. One object serves all threads: the
// fast path holds the mutex only to copy a pointer; a renewal holds it across
// the HTTP calls, so one thread renews and the others wait.
//
// The body is never hashed ("UNSIGNED-PAYLOAD"); uploads protect their data
// with a Content-MD5 header, which is signed when present. No exception
// leaves this class: without credentials a request goes out unsigned, and
// the server's 403 is the answer.
//
// Deployment constants (ExResource::getParameter): MDX_EC2_METADATA_ADDRESS
// (default "169.254.169.254", may carry ":port"), MDX_S3_DOMAIN (default
// "amazonaws.com"). Environment: IAM_ROLE, AWS_CONFIG_FILE.
#pragma once

#include <mdxlib/Export.h>

#include <QByteArray>
#include <QDate>
#include <QDateTime>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

class MDX_EXPORT LmAwsAuth
{
public:
    struct Credentials
    {
        QByteArray accessKeyId;
        QByteArray secretAccessKey;
        QByteArray region;
        std::string token;    // session token; empty for file credentials
        QDateTime expiration; // null: never expires (file credentials)
        QDate signingDate;    // the UTC day the signing key is for
        QByteArray dateStamp; // signingDate as yyyyMMdd
        QByteArray signingKey;
    };

    LmAwsAuth();

    // The real URL; the signature's headers are appended to headers. Headers
    // to be signed (Content-MD5) must be in headers before the call.
    std::string prepareRequest(char const* verb, std::string const& url, std::vector<std::string>& headers);

    // Signature Version 4 of one request, a pure function of the request,
    // the credentials and the time: the real URL, with the signature's
    // headers appended to headers. Null credentials sign nothing.
    static std::string signRequest(char const* verb, std::string const& url,
                                   std::vector<std::string>& headers, Credentials const* credentials,
                                   QDateTime const& now);

    // Valid credentials at now (UTC), renewed or re-keyed as needed; null
    // when none can be found.
    std::shared_ptr<Credentials> getCredentials(QDateTime const& now);
    static void computeSecreteSigV4(std::shared_ptr<Credentials> const& credentials, QDate const& date);

    std::shared_ptr<Credentials> readCredentialsFromMetaData();
    std::shared_ptr<Credentials> readCredentialsFromFile();
    QByteArray getRegionFromMetaData(std::string const& token);
    std::string getIAMRole(std::string const& token);

    // For tests: puts credentials in place as if they had been read.
    void setCredentials(std::shared_ptr<Credentials> credentials);
    // For tests: forgets whether this process runs on an EC2 instance.
    static void resetInstanceProbe();

    // "http://<metadata address>"
    static std::string metadataBase();

private:
    std::mutex mMutex;
    std::shared_ptr<Credentials> mCredentials;
};
