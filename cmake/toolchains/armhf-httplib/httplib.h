// Debian 12's armhf cpp-httplib (the tests' servers and the command-line
// demo use it; the library does not) was built with a 32-bit time_t, and its
// classes hold time_t members and take time_t arguments. Code built with
// -D_TIME_BITS=64 must see its declarations as the library was built:
// time_t there is glibc's __time_t, the 32-bit type. Every header it
// includes is included first, as usual, so that only its own declarations
// change.
#ifndef PACTIVO_ARMHF_HTTPLIB_H_
#define PACTIVO_ARMHF_HTTPLIB_H_

#include <arpa/inet.h>
#include <brotli/decode.h>
#include <brotli/encode.h>
#include <errno.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <pthread.h>
#include <resolv.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <cctype>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#define time_t __time_t
#include_next <httplib.h>
#undef time_t

#endif  // PACTIVO_ARMHF_HTTPLIB_H_
