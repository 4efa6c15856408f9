// The JNI boundary of the file sockets: the natives of FileSocketImpl and of
// FileSocketAddress.createIdentifier. Each native converts its arguments, calls the socket
// layer with a JavaExceptionHandler, and returns; a failure the layer reported is then a
// pending FileSocketException or SocketTimeoutException.
//
// Arguments a Java caller can get wrong (a null array, offsets outside it, a socket already
// destroyed) end in a Java exception before the socket layer is called.
#include "allocations.h"
#include "cstring.h"
#include "fileSocket.h"

#include <cstring>
#include <jni.h>

#include <atomic>
#include <pthread.h>

namespace J2SE {

namespace {

// Identities cached by init0; the class references are global references kept for the life
// of the library. The natives require only what the tool's classes are documented to have: the
// three fields, the constructor and getAddress of FileSocketImpl, and FileSocketAddress's
// socketIdentifier.
jclass impl_class = nullptr;
jfieldID fileSocket_pd_field = nullptr;
jfieldID restrictAccess_field = nullptr;
jfieldID backlog_field = nullptr;
jmethodID impl_constructor = nullptr;
jmethodID getAddress_method = nullptr;
jfieldID socketIdentifier_field = nullptr;
// The exceptions the reports raise, looked up ahead. Were the tool's FileSocketException or its
// (String, String) constructor missing, a report would raise a java.io.IOException with its text.
jclass fileSocketException_class = nullptr;
jmethodID fileSocketException_constructor = nullptr;
jclass socketTimeoutException_class = nullptr;
// Optional, for our own FileSocketImpl only: its field release, the holder of the native handle
// for the Java object's Cleaner, and the holder's handle field. create0 and destroy0 keep the
// handle equal to fileSocket_pd. A class without them (the tool's) has no Cleaner: a socket it
// drops without destroy0 stays its to destroy.
jfieldID release_field = nullptr;
jfieldID release_handle_field = nullptr;
// Set last, once every required identity above is in place; read without the lock by every native.
std::atomic<bool> initialized(false);
// Serialises the first callers, so that the identities are looked up (and the class references
// made global) once.
pthread_mutex_t init_lock = PTHREAD_MUTEX_INITIALIZER;

const int STACK_BUFFER_SIZE = 1024;

jclass global_class(JNIEnv* env, const char* name) {
    jclass local = env->FindClass(name);
    if (local == nullptr) return nullptr;
    jclass global = static_cast<jclass>(env->NewGlobalRef(local));
    env->DeleteLocalRef(local);
    return global;
}

// A class that may be missing: null, and no error left pending, when it is.
jclass optional_global_class(JNIEnv* env, const char* name) {
    jclass global = global_class(env, name);
    if (global == nullptr) env->ExceptionClear();
    return global;
}

// A field that only our own classes have: null, and no error left pending, when it is missing.
jfieldID optional_field(JNIEnv* env, jclass cls, const char* name, const char* signature) {
    if (cls == nullptr) return nullptr;
    jfieldID field = env->GetFieldID(cls, name, signature);
    if (field == nullptr) env->ExceptionClear();
    return field;
}

// The identities the documentation promises; on a failure its Java error (NoSuchFieldError, ...)
// is pending and false is returned.
bool cache_required_identities(JNIEnv* env, jclass cls) {
    if (impl_class == nullptr) impl_class = static_cast<jclass>(env->NewGlobalRef(cls));
    if (impl_class == nullptr) return false;
    fileSocket_pd_field = env->GetFieldID(cls, "fileSocket_pd", "J");
    if (fileSocket_pd_field == nullptr) return false;
    restrictAccess_field = env->GetFieldID(cls, "restrictAccess", "Z");
    if (restrictAccess_field == nullptr) return false;
    backlog_field = env->GetFieldID(cls, "backlog", "I");
    if (backlog_field == nullptr) return false;
    impl_constructor = env->GetMethodID(cls, "<init>", "(JLjava/lang/String;)V");
    if (impl_constructor == nullptr) return false;
    getAddress_method = env->GetMethodID(cls, "getAddress", "()Lcom/nox/jvm/inspector/filesocket/FileSocketAddress;");
    if (getAddress_method == nullptr) return false;
    jclass address_class = env->FindClass("com/nox/jvm/inspector/filesocket/FileSocketAddress");
    if (address_class == nullptr) return false;
    socketIdentifier_field = env->GetFieldID(address_class, "socketIdentifier", "Ljava/lang/String;");
    env->DeleteLocalRef(address_class);
    return socketIdentifier_field != nullptr;
}

// What the natives can do without: looked up with every error cleared.
void cache_optional_identities(JNIEnv* env, jclass cls) {
    if (fileSocketException_class == nullptr) {
        fileSocketException_class = optional_global_class(env, "com/nox/jvm/inspector/filesocket/FileSocketException");
    }
    if (fileSocketException_class != nullptr && fileSocketException_constructor == nullptr) {
        fileSocketException_constructor =
            env->GetMethodID(fileSocketException_class, "<init>", "(Ljava/lang/String;Ljava/lang/String;)V");
        if (fileSocketException_constructor == nullptr) env->ExceptionClear();
    }
    if (socketTimeoutException_class == nullptr) {
        socketTimeoutException_class = optional_global_class(env, "java/net/SocketTimeoutException");
    }
    release_field = optional_field(env, cls, "release", "Lcom/nox/jvm/inspector/filesocket/FileSocketImpl$NativeRelease;");
    if (release_field == nullptr) return;
    jclass release_class = env->FindClass("com/nox/jvm/inspector/filesocket/FileSocketImpl$NativeRelease");
    if (release_class == nullptr) env->ExceptionClear();
    release_handle_field = optional_field(env, release_class, "handle", "J");
    if (release_class != nullptr) env->DeleteLocalRef(release_class);
    if (release_handle_field == nullptr) release_field = nullptr;  // both or neither
}

// Called with init_lock held.
void cache_identities_locked(JNIEnv* env, jclass cls) {
    if (!cache_required_identities(env, cls)) return;
    cache_optional_identities(env, cls);
    initialized.store(true);
}

void cache_identities(JNIEnv* env, jclass cls) {
    if (initialized.load()) return;
    pthread_mutex_lock(&init_lock);
    if (!initialized.load()) cache_identities_locked(env, cls);
    pthread_mutex_unlock(&init_lock);
}

void throw_new(JNIEnv* env, const char* class_name, const char* message) {
    if (env->ExceptionCheck()) env->ExceptionClear();
    jclass cls = env->FindClass(class_name);
    if (cls != nullptr) env->ThrowNew(cls, message);
}

}  // namespace

// Turns every report of the socket layer into a pending Java exception. A later report in the
// same native call replaces an earlier one (the last report wins), so JNI is never called
// while an exception is pending.
class JavaExceptionHandler : public ExceptionHandler {
public:
    explicit JavaExceptionHandler(JNIEnv* env) : _env(env) {}

    void throw_FileSocketException(const FileSocket* socket, const char* message) override {
        ExceptionHandler::throw_FileSocketException(socket, message);
        raise_file_socket_exception();
    }
    void throw_FileSocketException(const FileSocket* socket, int error) override {
        ExceptionHandler::throw_FileSocketException(socket, error);
        raise_file_socket_exception();
    }
    void throw_SocketTimeoutException(const FileSocket* socket, const char* message) override {
        ExceptionHandler::throw_SocketTimeoutException(socket, message);
        raise_timeout();
    }
    void throw_SocketTimeoutException(const FileSocket* socket, int error) override {
        ExceptionHandler::throw_SocketTimeoutException(socket, error);
        raise_timeout();
    }

private:
    void raise_file_socket_exception() {
        if (_env == nullptr) return;
        if (_env->ExceptionCheck()) _env->ExceptionClear();
        if (fileSocketException_class == nullptr || fileSocketException_constructor == nullptr) {
            throw_new(_env, "java/io/IOException", _message.c_str());
            return;
        }
        jstring message = _env->NewStringUTF(_message.c_str());
        if (message == nullptr) return;  // OutOfMemoryError pending
        jstring identifier = _env->NewStringUTF(_socket_identifier.c_str());
        if (identifier == nullptr) return;
        jobject exception = _env->NewObject(fileSocketException_class, fileSocketException_constructor, message,
                                            identifier);
        if (exception != nullptr) _env->Throw(static_cast<jthrowable>(exception));
        _env->DeleteLocalRef(message);
        _env->DeleteLocalRef(identifier);
        if (exception != nullptr) _env->DeleteLocalRef(exception);
    }

    void raise_timeout() {
        if (_env == nullptr) return;
        if (_env->ExceptionCheck()) _env->ExceptionClear();
        if (socketTimeoutException_class == nullptr) {
            throw_new(_env, "java/net/SocketTimeoutException", _message.c_str());
            return;
        }
        _env->ThrowNew(socketTimeoutException_class, _message.c_str());
    }

    JNIEnv* _env;
};

// A copy of a Java string's modified-UTF-8 bytes; a null string gives the empty string.
class java_string {
public:
    java_string(JNIEnv* env, jstring string) : _str(nullptr), _len(0) {
        const char* chars = string != nullptr ? env->GetStringUTFChars(string, nullptr) : nullptr;
        if (chars != nullptr) {
            _len = strlen(chars);
            _str = static_cast<char*>(wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/filesocket/FileSocketImpl.cpp:java_string"), _len + 1));
            if (_str != nullptr) memcpy(_str, chars, _len + 1);
            env->ReleaseStringUTFChars(string, chars);
        }
        if (_str == nullptr) {
            _len = 0;
            _str = static_cast<char*>(wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/filesocket/FileSocketImpl.cpp:java_string"), 1));
            if (_str != nullptr) _str[0] = '\0';
        }
    }
    virtual ~java_string() {
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/filesocket/FileSocketImpl.cpp:~java_string"), _str);
    }
    java_string(const java_string&) = delete;
    java_string& operator=(const java_string&) = delete;

    cstring as_cstring() const { return _str != nullptr ? cstring(_str) : cstring(); }

private:
    char* _str;
    size_t _len;
};

// A heap array released when it goes out of scope.
class DynamicBuffer {
public:
    explicit DynamicBuffer(size_t size)
        : _array(static_cast<char*>(wrap_malloc(alloc_site("(libnoxjvm_inspector.so) src/filesocket/FileSocketImpl.cpp:DynamicBuffer"), size))) {}
    virtual ~DynamicBuffer() {
        wrap_free(alloc_site("(libnoxjvm_inspector.so) src/filesocket/FileSocketImpl.cpp:~DynamicBuffer"), _array);
    }
    DynamicBuffer(const DynamicBuffer&) = delete;
    DynamicBuffer& operator=(const DynamicBuffer&) = delete;
    char* get() const { return _array; }

private:
    char* _array;
};

// Bytes [off, off + len) of a Java array, pinned with the JVM's critical access for one
// system call that does not wait. The JVM may hand out a copy: unpin writes it back.
class CriticalArray : public PinnedBuffer {
public:
    CriticalArray(JNIEnv* env, jbyteArray array, jint off) : _env(env), _array(array), _off(off), _elements(nullptr) {}
    ~CriticalArray() override { unpin(); }
    CriticalArray(const CriticalArray&) = delete;
    CriticalArray& operator=(const CriticalArray&) = delete;

    char* pin() override {
        _elements = _env->GetPrimitiveArrayCritical(_array, nullptr);
        if (_elements == nullptr) {
            throw_new(_env, "java/lang/OutOfMemoryError", "cannot pin the array");
            return nullptr;
        }
        return static_cast<char*>(_elements) + _off;
    }
    void unpin() override {
        if (_elements == nullptr) return;
        _env->ReleasePrimitiveArrayCritical(_array, _elements, 0);
        _elements = nullptr;
    }

private:
    JNIEnv* _env;
    jbyteArray _array;
    jint _off;
    void* _elements;
};

}  // namespace J2SE

using J2SE::FileSocket;
using J2SE::JavaExceptionHandler;

namespace {

// Sets the Cleaner's handle of `self` to `handle` when it is `expected`. Nothing for a class
// without the holder, or an object whose holder is null.
void update_release_handle(JNIEnv* env, jobject self, jlong expected, jlong handle) {
    if (J2SE::release_field == nullptr) return;
    jobject release = env->GetObjectField(self, J2SE::release_field);
    if (release == nullptr) return;
    if (env->GetLongField(release, J2SE::release_handle_field) == expected) {
        env->SetLongField(release, J2SE::release_handle_field, handle);
    }
    env->DeleteLocalRef(release);
}

bool ensure_initialized(JNIEnv* env, jobject self) {
    if (J2SE::initialized.load()) return true;
    jclass cls = env->GetObjectClass(self);
    J2SE::cache_identities(env, cls);
    env->DeleteLocalRef(cls);
    return J2SE::initialized.load();
}

// The native socket of `self`; null (with a FileSocketException pending) when there is none.
FileSocket* socket_of(JNIEnv* env, jobject self) {
    if (!ensure_initialized(env, self)) return nullptr;
    FileSocket* socket = reinterpret_cast<FileSocket*>(env->GetLongField(self, J2SE::fileSocket_pd_field));
    if (socket == nullptr) {
        JavaExceptionHandler handler(env);
        handler.throw_FileSocketException(nullptr, "Filesocket has no socket endpoint");
    }
    return socket;
}

// Null array: NullPointerException; a range outside it: ArrayIndexOutOfBoundsException.
bool check_range(JNIEnv* env, jbyteArray b, jint off, jint len) {
    if (b == nullptr) {
        J2SE::throw_new(env, "java/lang/NullPointerException", "buffer is null");
        return false;
    }
    jsize size = env->GetArrayLength(b);
    if (off < 0 || len < 0 || off > size - len) {
        J2SE::throw_new(env, "java/lang/ArrayIndexOutOfBoundsException", "offset or length outside the array");
        return false;
    }
    return true;
}

// The address of bytes [pos, pos + len) of a direct buffer, or null with an exception pending.
char* direct_range(JNIEnv* env, jobject buffer, jint pos, jint len) {
    if (buffer == nullptr) {
        J2SE::throw_new(env, "java/lang/NullPointerException", "buffer is null");
        return nullptr;
    }
    char* address = static_cast<char*>(env->GetDirectBufferAddress(buffer));
    jlong capacity = env->GetDirectBufferCapacity(buffer);
    if (address == nullptr || capacity < 0) {
        J2SE::throw_new(env, "java/lang/IllegalArgumentException", "not a direct buffer");
        return nullptr;
    }
    if (pos < 0 || len < 0 || static_cast<jlong>(pos) + len > capacity) {
        J2SE::throw_new(env, "java/lang/IndexOutOfBoundsException", "position or length outside the buffer");
        return nullptr;
    }
    return address + pos;
}

}  // namespace

extern "C" {

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_init0(JNIEnv* env, jclass cls) {
    J2SE::cache_identities(env, cls);
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_create0(JNIEnv* env, jobject self) {
    if (!ensure_initialized(env, self)) return;
    if (env->GetLongField(self, J2SE::fileSocket_pd_field) != 0) return;
    JavaExceptionHandler handler(env);
    FileSocket* socket = FileSocket::create(handler);
    if (socket != nullptr && handler.has_thrown()) {
        FileSocket::destroy(socket);
        return;
    }
    env->SetLongField(self, J2SE::fileSocket_pd_field, reinterpret_cast<jlong>(socket));
    if (socket != nullptr) update_release_handle(env, self, 0, reinterpret_cast<jlong>(socket));
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_bind0(JNIEnv* env, jobject self,
                                                                                 jstring path, jint backlog,
                                                                                 jboolean restrictAccess) {
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return;
    J2SE::java_string copy(env, path);
    JavaExceptionHandler handler(env);
    socket->bind(copy.as_cstring(), backlog, restrictAccess == JNI_TRUE, handler);
}

JNIEXPORT jobject JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_accept0(JNIEnv* env, jobject self) {
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return nullptr;
    jobject address = env->CallObjectMethod(self, J2SE::getAddress_method);
    if (env->ExceptionCheck()) return nullptr;
    jobject identifier = address != nullptr ? env->GetObjectField(address, J2SE::socketIdentifier_field) : nullptr;
    jint backlog = env->GetIntField(self, J2SE::backlog_field);
    jboolean restrictAccess = env->GetBooleanField(self, J2SE::restrictAccess_field);

    JavaExceptionHandler handler(env);
    FileSocket* accepted = socket->accept(backlog, restrictAccess == JNI_TRUE, handler);
    if (handler.has_thrown() || accepted == nullptr) return nullptr;
    jobject result = env->NewObject(J2SE::impl_class, J2SE::impl_constructor, reinterpret_cast<jlong>(accepted), identifier);
    if (result == nullptr) FileSocket::destroy(accepted);  // an exception is pending
    return result;
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_connect0(JNIEnv* env, jobject self,
                                                                                    jstring path, jint timeout) {
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return;
    J2SE::java_string copy(env, path);
    JavaExceptionHandler handler(env);
    socket->connect(copy.as_cstring(), timeout, handler);
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_read0(JNIEnv* env, jobject self,
                                                                                 jbyteArray b, jint off, jint len,
                                                                                 jint timeout) {
    if (!check_range(env, b, off, len)) return -1;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return -1;
    JavaExceptionHandler handler(env);
    char stack_buffer[J2SE::STACK_BUFFER_SIZE];
    if (len <= J2SE::STACK_BUFFER_SIZE) {
        int n = socket->readf(stack_buffer, len, timeout, handler);
        if (handler.has_thrown() || n <= 0) return -1;
        env->SetByteArrayRegion(b, off, n, reinterpret_cast<const jbyte*>(stack_buffer));
        return n;
    }
    J2SE::DynamicBuffer heap_buffer(static_cast<size_t>(len));
    if (heap_buffer.get() == nullptr) {
        J2SE::throw_new(env, "java/lang/OutOfMemoryError", "read buffer");
        return -1;
    }
    int n = socket->readf(heap_buffer.get(), len, timeout, handler);
    if (handler.has_thrown() || n <= 0) return -1;
    env->SetByteArrayRegion(b, off, n, reinterpret_cast<const jbyte*>(heap_buffer.get()));
    return n;
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_write0(JNIEnv* env, jobject self,
                                                                                  jbyteArray b, jint off, jint len,
                                                                                  jint timeout) {
    if (!check_range(env, b, off, len)) return 0;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return 0;
    JavaExceptionHandler handler(env);
    char buffer[J2SE::STACK_BUFFER_SIZE];
    jint total = 0;
    jint remaining = len;
    jint position = off;
    while (remaining > 0) {
        jint chunk = remaining < J2SE::STACK_BUFFER_SIZE ? remaining : J2SE::STACK_BUFFER_SIZE;
        env->GetByteArrayRegion(b, position, chunk, reinterpret_cast<jbyte*>(buffer));
        jint written = socket->writef(buffer, chunk, timeout, handler);
        total += written;
        if (handler.has_thrown()) return total;
        remaining -= written;
        position += written;
    }
    return total;
}

// Reads once into bytes [pos, pos + len) of a direct buffer: the count, or -1 as read0.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_readDirect0(JNIEnv* env, jobject self,
                                                                                       jobject buffer, jint pos,
                                                                                       jint len, jint timeout) {
    char* address = direct_range(env, buffer, pos, len);
    if (address == nullptr) return -1;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return -1;
    JavaExceptionHandler handler(env);
    int n = socket->readf(address, len, timeout, handler);
    if (handler.has_thrown() || n <= 0) return -1;
    return n;
}

// The read of the Java streams: once into bytes [pos, pos + len) of a direct buffer. The count,
// or -1 at end of stream; a failed read is a FileSocketException with the system's text and a
// time-out a SocketTimeoutException (readDirect0 and read0 turn both into -1).
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_receiveDirect0(JNIEnv* env, jobject self,
                                                                                          jobject buffer, jint pos,
                                                                                          jint len, jint timeout) {
    char* address = direct_range(env, buffer, pos, len);
    if (address == nullptr) return -1;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return -1;
    JavaExceptionHandler handler(env);
    int n = socket->receive(address, len, timeout, handler);
    if (handler.has_thrown()) return -1;
    return n == 0 && len > 0 ? -1 : n;
}

// The small reads of the Java streams (at most 1024 bytes; more are cut to 1024): once into
// b[off..], through a buffer on the stack. The count, or -1 at end of stream; failures as in
// receiveDirect0.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_receive0(JNIEnv* env, jobject self,
                                                                                    jbyteArray b, jint off, jint len,
                                                                                    jint timeout) {
    if (!check_range(env, b, off, len)) return -1;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return -1;
    JavaExceptionHandler handler(env);
    char buffer[J2SE::STACK_BUFFER_SIZE];
    int wanted = len < J2SE::STACK_BUFFER_SIZE ? len : J2SE::STACK_BUFFER_SIZE;
    int n = socket->receive(buffer, wanted, timeout, handler);
    if (handler.has_thrown() || n < 0) return -1;
    if (n == 0) return wanted > 0 ? -1 : 0;
    env->SetByteArrayRegion(b, off, n, reinterpret_cast<const jbyte*>(buffer));
    return n;
}

// The large reads of the Java streams: once into b[off..off + len), straight from the socket
// into the array, without a copy in between. The count, or -1 at end of stream; failures as in
// receiveDirect0.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_receiveArray0(JNIEnv* env, jobject self,
                                                                                         jbyteArray b, jint off,
                                                                                         jint len, jint timeout) {
    if (!check_range(env, b, off, len)) return -1;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return -1;
    JavaExceptionHandler handler(env);
    J2SE::CriticalArray array(env, b, off);
    int n = socket->receive_pinned(array, len, timeout, handler);
    if (handler.has_thrown() || n < 0) return -1;
    return n == 0 && len > 0 ? -1 : n;
}

// The large writes of the Java streams: all of b[off..off + len) straight from the array. The
// count written; a failure or a time-out (each wait for room) is pending with the count so far.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_sendArray0(JNIEnv* env, jobject self,
                                                                                      jbyteArray b, jint off,
                                                                                      jint len, jint timeout) {
    if (!check_range(env, b, off, len)) return 0;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return 0;
    JavaExceptionHandler handler(env);
    J2SE::CriticalArray array(env, b, off);
    return socket->send_pinned(array, len, timeout, handler);
}

// Writes bytes [pos, pos + len) of a direct buffer with as few system calls as the socket
// takes; the time-out applies to each wait, as in write0. Returns the count written.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_writeDirect0(JNIEnv* env, jobject self,
                                                                                        jobject buffer, jint pos,
                                                                                        jint len, jint timeout) {
    char* address = direct_range(env, buffer, pos, len);
    if (address == nullptr) return 0;
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return 0;
    JavaExceptionHandler handler(env);
    return socket->writef(address, len, timeout, handler);
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_available0(JNIEnv* env, jobject self) {
    if (!ensure_initialized(env, self)) return -1;
    FileSocket* socket = reinterpret_cast<FileSocket*>(env->GetLongField(self, J2SE::fileSocket_pd_field));
    return socket != nullptr ? socket->available() : -1;
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_shutdown0(JNIEnv* env, jobject self,
                                                                                     jboolean how) {
    FileSocket* socket = socket_of(env, self);
    if (socket == nullptr) return;
    JavaExceptionHandler handler(env);
    socket->shutdown(how == JNI_TRUE, handler);
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_close0(JNIEnv* env, jobject self) {
    if (!ensure_initialized(env, self)) return;
    FileSocket* socket = reinterpret_cast<FileSocket*>(env->GetLongField(self, J2SE::fileSocket_pd_field));
    if (socket == nullptr) return;
    JavaExceptionHandler handler(env);
    socket->closef(handler);
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_destroy0(JNIEnv* env, jobject self) {
    if (!ensure_initialized(env, self)) return;
    FileSocket* socket = reinterpret_cast<FileSocket*>(env->GetLongField(self, J2SE::fileSocket_pd_field));
    if (socket != nullptr) update_release_handle(env, self, reinterpret_cast<jlong>(socket), 0);
    FileSocket::destroy(socket);
    env->SetLongField(self, J2SE::fileSocket_pd_field, 0);
}

// Closes and frees a native socket by its handle, without its Java object: the release of a
// FileSocketImpl that was dropped without close (run by its Cleaner, when no thread can be
// inside a native call on it any more).
JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketImpl_release0(JNIEnv*, jclass, jlong handle) {
    FileSocket::destroy(reinterpret_cast<FileSocket*>(handle));
}

JNIEXPORT jstring JNICALL Java_com_nox_jvm_inspector_filesocket_FileSocketAddress_createIdentifier(JNIEnv* env,
                                                                                                  jclass,
                                                                                                  jstring name) {
    if (name == nullptr) return nullptr;
    J2SE::java_string copy(env, name);
    J2SE::cstring identifier = FileSocket::create_identifier(copy.as_cstring());
    return env->NewStringUTF(identifier.c_str());
}

}  // extern "C"
