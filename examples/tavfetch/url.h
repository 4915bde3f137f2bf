// URLs as the command line and servers give them.
#ifndef EXAMPLES_TAVFETCH_URL_H
#define EXAMPLES_TAVFETCH_URL_H

#include <string>

// "example.com/x" becomes "http://example.com/x".
std::string complete_url(const std::string& text);

// Takes "user:password@" out of the URL and returns it as it stood, without the '@'.
std::string take_login(std::string* url);

// The URL as it may be shown: without user and password, without control characters.
std::string shown_url(std::string url);

// "http", in lower case; empty when there is none.
std::string scheme_of(const std::string& url);

// The host in lower case, an IPv6 address without its brackets.
std::string host_of(const std::string& url);

// True when scheme, host and port are the same.
bool is_same_origin(const std::string& one, const std::string& other);

// The last component of the URL's path as a file name; "index.html" when there is none.
std::string name_of_url(const std::string& url);

// The file name of a Content-Disposition value; empty when it has none.
std::string name_of_disposition(const std::string& value);

#endif
