#include "proof/calls/errors.h"

#include <string.h>

#include <cerrno>
#include <map>

const Errors_& errorsOf(SystemCalls_::Call_ call) {
    using Calls_ = SystemCalls_;
    static const std::map<Calls_::Call_, Errors_> s_errors = {
        {Calls_::Socket,
         {EINTR, EACCES, EAFNOSUPPORT, EINVAL, EMFILE, ENFILE, ENOBUFS, ENOMEM, EPROTONOSUPPORT, EPROTOTYPE,
          ESOCKTNOSUPPORT, EPERM}},
        // F_GETFL and F_SETFL
        {Calls_::Fcntl, {EINTR, EACCES, EAGAIN, EBADF, EINVAL, EPERM, ENOSYS}},
        {Calls_::Setsockopt,
         {EINTR, EACCES, EBADF, EDOM, EFAULT, EINVAL, EISCONN, ENOBUFS, ENOMEM, ENOPROTOOPT, ENOTSOCK,
          EPERM}},
        {Calls_::Getsockopt,
         {EINTR, EACCES, EBADF, EFAULT, EINVAL, ENOBUFS, ENOMEM, ENOPROTOOPT, ENOTSOCK, EPERM}},
        {Calls_::Bind, {EINTR,   EACCES,       EADDRINUSE,   EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN, EALREADY,
                        EBADF,   EDESTADDRREQ, EFAULT,       EINPROGRESS,   EINVAL,       EIO,    EISCONN,
                        EISDIR,  ELOOP,        ENAMETOOLONG, ENOBUFS,       ENOENT,       ENOMEM, ENOSPC,
                        ENOTDIR, ENOTSOCK,     EOPNOTSUPP,   EPERM,         EROFS}},
        {Calls_::Listen,
         {EINTR, EACCES, EADDRINUSE, EBADF, EDESTADDRREQ, EINVAL, ENOBUFS, ENOMEM, ENOTSOCK, EOPNOTSUPP,
          EPERM}},
        {Calls_::Accept,
         {EINTR,     EAGAIN,      EBADF,           ECONNABORTED,   EFAULT,     EHOSTDOWN, EHOSTUNREACH,
          EINVAL,    EMFILE,      ENETDOWN,        ENETUNREACH,    ENFILE,     ENOBUFS,   ENOMEM,
          ENONET,    ENOPROTOOPT, ENOSR,           ENOTSOCK,       EOPNOTSUPP, EPERM,     EPROTO,
          ETIMEDOUT, EACCES,      EPROTONOSUPPORT, ESOCKTNOSUPPORT}},
        {Calls_::Connect,
         {EINTR,        EACCES,     EADDRINUSE,   EADDRNOTAVAIL, EAFNOSUPPORT, EAGAIN,      EALREADY, EBADF,
          ECONNREFUSED, ECONNRESET, EFAULT,       EHOSTDOWN,     EHOSTUNREACH, EINPROGRESS, EINVAL,   EIO,
          EISCONN,      ELOOP,      ENAMETOOLONG, ENETDOWN,      ENETUNREACH,  ENOBUFS,     ENOENT,   ENOMEM,
          ENOTDIR,      ENOTSOCK,   EOPNOTSUPP,   EPERM,         EPROTOTYPE,   ETIMEDOUT}},
        {Calls_::Getsockname,
         {EINTR, EBADF, EFAULT, EINVAL, ENOBUFS, ENOMEM, ENOTSOCK, EOPNOTSUPP, EPERM, EACCES}},
        {Calls_::Getpeername,
         {EINTR, EBADF, EFAULT, EINVAL, ENOBUFS, ENOMEM, ENOTCONN, ENOTSOCK, EOPNOTSUPP, EPERM, EACCES}},
        {Calls_::Send,
         {EINTR,        EAGAIN,     EACCES,    EALREADY,     EBADF,       ECONNREFUSED, ECONNRESET,
          EDESTADDRREQ, EFAULT,     EHOSTDOWN, EHOSTUNREACH, EINPROGRESS, EINVAL,       EIO,
          EISCONN,      EMSGSIZE,   ENETDOWN,  ENETUNREACH,  ENOBUFS,     ENOMEM,       ENOTCONN,
          ENOTSOCK,     EOPNOTSUPP, EPERM,     EPIPE,        EPROTO,      ETIMEDOUT}},
        {Calls_::Recv,
         {EINTR,        EAGAIN,     EACCES, EBADF,    ECONNREFUSED, ECONNRESET, EFAULT, EHOSTDOWN,
          EHOSTUNREACH, EINVAL,     EIO,    ENETDOWN, ENETUNREACH,  ENOBUFS,    ENOMEM, ENOTCONN,
          ENOTSOCK,     EOPNOTSUPP, EPERM,  EPIPE,    EPROTO,       ETIMEDOUT}},
        {Calls_::Close, {EINTR, EBADF, EDQUOT, EIO, ENOSPC, ECONNRESET}},
        {Calls_::Access,
         {EINTR, EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM, EROFS,
          ETXTBSY}},
        {Calls_::Unlink,
         {EINTR, EACCES, EBUSY, EFAULT, EIO, EISDIR, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EPERM,
          EROFS, ETXTBSY}},
        {Calls_::Chmod,
         {EINTR, EACCES, EFAULT, EINVAL, EIO, ELOOP, ENAMETOOLONG, ENOENT, ENOMEM, ENOTDIR, EOPNOTSUPP, EPERM,
          EROFS}},
        {Calls_::Poll, {EINTR, EAGAIN, EFAULT, EINVAL, ENOMEM}},
        {Calls_::Look, {EINTR, EAGAIN, EFAULT, EINVAL, ENOMEM}},
        {Calls_::ClockGettime, {EINTR, EACCES, EFAULT, EINVAL, ENODEV, ENOTSUP, EOVERFLOW, EPERM}},
        {Calls_::Write,
         {EINTR, EAGAIN, EBADF, EDESTADDRREQ, EDQUOT, EFAULT, EFBIG, EINVAL, EIO, ENOSPC, ENXIO, EPERM,
          EPIPE}},
        {Calls_::Read,
         {EINTR, EAGAIN, EBADF, EFAULT, EINVAL, EIO, EISDIR, ENOMEM, ENXIO, EOVERFLOW, ETIMEDOUT}},
        // open(2) and fopen(3)
        {Calls_::Fopen,
         {EINTR,        EACCES, EAGAIN, EBUSY,  EFAULT, EINVAL,  EIO,   EISDIR,    ELOOP, EMFILE,
          ENAMETOOLONG, ENFILE, ENODEV, ENOENT, ENOMEM, ENOTDIR, ENXIO, EOVERFLOW, EPERM, ETXTBSY}},
        {Calls_::Fclose, {EINTR, EAGAIN, EBADF, EDQUOT, EIO, ENOSPC}}};
    return s_errors.at(call);
}

const Errors_& pendingErrors() {
    static const Errors_ s_errors = {
        EINTR,        EACCES,      EADDRNOTAVAIL, EALREADY, ECONNABORTED, ECONNREFUSED, ECONNRESET, EHOSTDOWN,
        EHOSTUNREACH, EINPROGRESS, EIO,           ENETDOWN, ENETUNREACH,  ENOBUFS,      ENOMEM,     ENONET,
        ENOPROTOOPT,  EOPNOTSUPP,  EPERM,         EPIPE,    EPROTO,       ETIMEDOUT};
    return s_errors;
}

std::string nameOfError(int error) {
    return strerrorname_np(error);
}
