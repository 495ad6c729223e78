// callback_bio.cpp - an OpenSSL BIO whose reads and writes are the
// library's I/O callbacks (attribute 800): the toolkit never reads or
// writes a socket itself. A callback's EWOULDBLOCK becomes a retry, its end
// of stream and its errors are kept on the socket for the reason code.
#include "callback_bio.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <mutex>
#include <pthread.h>

namespace zor {

namespace {

bool is_retry(int error) { return error == EWOULDBLOCK || error == EAGAIN || error == EINTR; }

SecureSocket *socket_of(BIO *bio) { return static_cast<SecureSocket *>(BIO_get_data(bio)); }

int read_ex(BIO *bio, char *buffer, size_t length, size_t *done)
{
    SecureSocket *soc = socket_of(bio);
    BIO_clear_retry_flags(bio);
    errno = 0;
    int n = soc->environment->callbacks.read(soc->fd, buffer, length > INT_MAX ? INT_MAX : static_cast<int>(length),
                                             soc->user_data_pointer());
    if (n > 0) {
        *done = static_cast<size_t>(n);
        return 1;
    }
    if (n == 0)
        soc->peer_closed = true;
    else if (is_retry(errno))
        BIO_set_retry_read(bio);
    else
        soc->io_errno = errno;
    return 0;
}

// A write to a peer that has gone away must give EPIPE, not a SIGPIPE that
// ends the caller's process: the signal is blocked in this thread for the
// call and a SIGPIPE it raised is taken back before it is unblocked.
int write_ex(BIO *bio, const char *buffer, size_t length, size_t *done)
{
    SecureSocket *soc = socket_of(bio);
    BIO_clear_retry_flags(bio);
    sigset_t pipe_only, previous, pending;
    sigemptyset(&pipe_only);
    sigaddset(&pipe_only, SIGPIPE);
    sigpending(&pending);
    bool was_pending = sigismember(&pending, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe_only, &previous);
    errno = 0;
    int n = soc->environment->callbacks.write(soc->fd, buffer, length > INT_MAX ? INT_MAX : static_cast<int>(length),
                                              soc->user_data_pointer());
    int error = errno;
    if (n < 0 && error == EPIPE && !was_pending) {
        const struct timespec now = {0, 0};
        sigtimedwait(&pipe_only, nullptr, &now);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    if (n > 0) {
        *done = static_cast<size_t>(n);
        return 1;
    }
    if (n < 0 && is_retry(error))
        BIO_set_retry_write(bio);
    else
        soc->io_errno = n < 0 ? error : EIO;
    return 0;
}

long control(BIO *bio, int command, long, void *)
{
    switch (command) {
    case BIO_CTRL_FLUSH:
        return 1;
    case BIO_CTRL_EOF:
        return socket_of(bio)->peer_closed;
    default:
        return 0;
    }
}

int create(BIO *bio)
{
    BIO_set_init(bio, 1);
    return 1;
}

BIO_METHOD *callback_method()
{
    static BIO_METHOD *method;
    static std::once_flag made;
    std::call_once(made, [] {
        BIO_METHOD *m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "zor I/O callbacks");
        if (m && BIO_meth_set_read_ex(m, read_ex) && BIO_meth_set_write_ex(m, write_ex) &&
            BIO_meth_set_ctrl(m, control) && BIO_meth_set_create(m, create))
            method = m;
        else
            BIO_meth_free(m);
    });
    return method;
}

} // namespace

BIO *new_callback_bio(SecureSocket &soc)
{
    BIO_METHOD *method = callback_method();
    BIO *bio = method ? BIO_new(method) : nullptr;
    if (bio)
        BIO_set_data(bio, &soc);
    return bio;
}

} // namespace zor
