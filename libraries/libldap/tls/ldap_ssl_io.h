// ldap_ssl_io.h - the I/O callbacks the secure-socket toolkit moves every
// byte through. Sockets are non-blocking; these turn "would block" into
// bounded waits: in handshake mode a time-out fails the I/O (EIO), in
// read/write mode it is passed up as EWOULDBLOCK.
#ifndef ZLDAP_LDAP_SSL_IO_H
#define ZLDAP_LDAP_SSL_IO_H

// The byte count, 0 at end of stream, or -1 with errno set: EWOULDBLOCK (no
// data within the read/write-mode wait), EIO (handshake time-out) or the
// system's error. A partial transfer before a read/write time-out is
// reported as its count.
int client_ssl_read(int fd, void *buffer, int length, void *user_data);
int client_ssl_write(int fd, const void *buffer, int length, void *user_data);
// Commands 900 and 901 make fd non-blocking (0, or fcntl's -1); others -1.
// user_data is a text of at most 8 bytes holding the last command, which
// is not repeated.
int client_setSocketOpts(int fd, int command, void *user_data);

// The loops behind the callbacks: *count receives the bytes moved. Results:
// the full length, read's or write's own result when it returns at once,
// -1 with errno, -2 (select time-out in handshake mode) or -3 (handshake
// time budget spent), both with errno EIO.
int ssl_read(int fd, char *buffer, int length, void *user_data, int *count);
int ssl_write(int fd, const char *buffer, int length, void *user_data, int *count);

#endif
