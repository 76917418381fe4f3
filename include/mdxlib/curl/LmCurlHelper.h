// What all HTTP requests of the process share: the curl share (connections,
// TLS sessions, DNS), the credentials objects, the session identifier and the
// file-server settings. LmCurlClient owns exactly one.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/cloudauth/LmAzureAuth.h>
#include <mdxlib/cloudauth/LmGoogleAuth.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class LmAwsAuth;
class LmCurlClient;

// What all requests share: the curl share (connections, TLS sessions, DNS),
// the authentication objects, the session identifier and the file-server
// settings.
class MDX_EXPORT LmCurlHelper
{
public:
    explicit LmCurlHelper(LmCurlClient* owner);
    ~LmCurlHelper();

    LmCurlHelper(LmCurlHelper const&) = delete;
    LmCurlHelper& operator=(LmCurlHelper const&) = delete;

    void* share() const { return mShare; }
    std::shared_ptr<LmAwsAuth> awsAuth() const { return mAws; }
    LmAzureAuth& azureAuth() { return mAzure; }
    LmGoogleAuth& googleAuth() { return mGoogle; }

    static std::string sslCipherList();
    static int maxConnects();
    static void setMaxConnects(int maxConnects);

    // Turns a WADO-URI or WADO-RS URL into the real request URL, adding the
    // Accept line of WADO-RS to headers; empty when the URL has no
    // study/series/instance path.
    std::string convertWadoUrl(std::string const& url, std::vector<std::string>& headers) const;
    static std::string getTransferSyntaxUID(int number);
    static std::string convertGoogleUrl(std::string const& url, bool dataTransfer, bool writing);
    static std::string convertAzureUrl(std::string const& url);

    // Google and Azure credentials plug in here; with none, requests go out
    // without authorization and the server's 401/403 is the answer. Azure's
    // provider is azureAuth() and Google's googleAuth() until one is set
    // (null: none).
    using AuthorizationProvider = std::function<std::string()>;
    void setGoogleAuthorizationProvider(AuthorizationProvider provider);
    void setAzureAuthorizationProvider(AuthorizationProvider provider);
    void addGoogleAuthorizationHeader(std::vector<std::string>& headers) const;
    void addAzureAuthorizationHeader(std::string const& url, std::vector<std::string>& headers) const;

    void setFFS2Parameters(char const* name);
    std::string getFFS2Port(std::string const& server) const;
    std::string getFFS2BearerToken(std::string const& url) const;
    void addRequestHeaders(std::string const& url, std::vector<std::string>& headers) const;

    void setSessionID(std::string id, bool asBearerToken);
    std::string const& sessionID() const { return mSessionID; }
    bool sessionIDIsBearerToken() const { return mSessionIDIsBearerToken; }

private:
    static void lock(void* handle, int data, int access, void* helper);
    static void unlock(void* handle, int data, void* helper);
    std::mutex* mutexFor(int data);

    void* mShare = nullptr;
    std::mutex mShareMutex;
    std::mutex mDnsMutex;
    std::mutex mSslMutex;
    std::mutex mConnectMutex;
    AuthorizationProvider mGoogleAuthorization;
    AuthorizationProvider mAzureAuthorization;
    std::shared_ptr<LmAwsAuth> mAws;
    LmAzureAuth mAzure;
    LmGoogleAuth mGoogle;
    LmCurlClient* mOwner;
    std::string mSessionID;
    bool mSessionIDIsBearerToken = false;
    mutable std::mutex mFFS2Mutex;
    std::map<std::string, std::string> mFFS2Ports;
    std::map<std::string, std::string> mFFS2BearerTokens;
};
