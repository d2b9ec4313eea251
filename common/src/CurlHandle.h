#pragma once

#include <curl/curl.h>

#include <memory>

namespace vantor::common
{

// Owning handles for libcurl objects.
struct CurlEasyDeleter
{
    void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CurlMultiDeleter
{
    void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct CurlSlistDeleter
{
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

using CurlEasyHandle = std::unique_ptr<CURL, CurlEasyDeleter>;
using CurlMultiHandle = std::unique_ptr<CURLM, CurlMultiDeleter>;
using CurlSlistHandle = std::unique_ptr<curl_slist, CurlSlistDeleter>;

} // namespace vantor::common
