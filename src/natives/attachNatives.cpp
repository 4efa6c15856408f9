// The JNI boundary of com.nox.jvm.inspector.attach.AttachNatives: converts arguments, runs the
// attach client of attachClient.h, and turns its failures into AttachException. A connection
// lives on the library's heap between open0 and free0; the Java side calls free0 once, after
// every read0 has returned.
#include "allocations.h"
#include "attachClient.h"
#include "cstring.h"

#include <cstring>
#include <jni.h>
#include <new>

namespace {

// One command's connection and the buffer its output passes through on the way to Java.
struct NativeReply {
    J2SE::AttachConnection connection;
    char buffer[32 * 1024];
};

const char* const SITE = "(libnoxjvm_inspector.so) src/natives/attachNatives.cpp";

// AttachException(int reason, String message); an IOException when our class is not there.
void throw_attach(JNIEnv* env, int reason, const char* message) {
    if (env->ExceptionCheck()) env->ExceptionClear();  // the last report wins
    jstring text = env->NewStringUTF(message);
    if (text == nullptr) return;  // OutOfMemoryError pending
    jclass type = env->FindClass("com/nox/jvm/inspector/attach/AttachException");
    jmethodID constructor = type != nullptr ? env->GetMethodID(type, "<init>", "(ILjava/lang/String;)V") : nullptr;
    if (constructor == nullptr) {
        env->ExceptionClear();
        jclass io = env->FindClass("java/io/IOException");
        if (io != nullptr) env->ThrowNew(io, message);
        return;
    }
    jobject exception = env->NewObject(type, constructor, static_cast<jint>(reason), text);
    if (exception != nullptr) env->Throw(static_cast<jthrowable>(exception));
}

// The bytes of a Java array as a NUL-terminated string; false (with an exception pending) when
// memory is short or the bytes hold a NUL (which would end the string early). A null array gives
// the empty string.
bool string_of(JNIEnv* env, jbyteArray bytes, J2SE::cstring* into) {
    if (bytes == nullptr) return true;
    jsize length = env->GetArrayLength(bytes);
    char* copy = static_cast<char*>(wrap_malloc(alloc_site(SITE), static_cast<size_t>(length) + 1));
    if (copy == nullptr) {
        throw_attach(env, J2SE::ATTACH_IO, "out of native memory");
        return false;
    }
    env->GetByteArrayRegion(bytes, 0, length, reinterpret_cast<jbyte*>(copy));
    copy[length] = '\0';
    bool whole = memchr(copy, '\0', static_cast<size_t>(length)) == nullptr;
    if (whole) *into = J2SE::cstring(copy, copy + length);
    wrap_free(alloc_site(SITE), copy);
    if (!whole) throw_attach(env, J2SE::ATTACH_BAD_REQUEST, "a command or argument holds a NUL byte");
    return whole;
}

NativeReply* reply_of(jlong handle) {
    return reinterpret_cast<NativeReply*>(static_cast<intptr_t>(handle));
}

}  // namespace

extern "C" {

JNIEXPORT jlong JNICALL Java_com_nox_jvm_inspector_attach_AttachNatives_open0(
    JNIEnv* env, jclass, jint pid, jbyteArray command, jbyteArray arg0, jbyteArray arg1, jbyteArray arg2,
    jint timeout_ms) {
    J2SE::cstring name, first, second, third;
    if (!string_of(env, command, &name) || !string_of(env, arg0, &first) || !string_of(env, arg1, &second) ||
        !string_of(env, arg2, &third)) {
        return 0;
    }
    const char* arguments[] = {first.c_str(), second.c_str(), third.c_str()};
    J2SE::AttachRequest request;
    const char* problem = request.build(name.c_str(), arguments, 3);
    if (problem != nullptr) {
        throw_attach(env, J2SE::ATTACH_BAD_REQUEST, problem);
        return 0;
    }
    void* memory = wrap_malloc(alloc_site(SITE), sizeof(NativeReply));
    if (memory == nullptr) {
        throw_attach(env, J2SE::ATTACH_IO, "out of native memory");
        return 0;
    }
    NativeReply* reply = new (memory) NativeReply();
    J2SE::AttachError error;
    if (!reply->connection.open(pid, request, timeout_ms, &error)) {
        reply->~NativeReply();
        wrap_free(alloc_site(SITE), memory);
        throw_attach(env, error.reason, error.message.c_str());
        return 0;
    }
    return static_cast<jlong>(reinterpret_cast<intptr_t>(reply));
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_attach_AttachNatives_status0(JNIEnv*, jclass, jlong handle) {
    return handle != 0 ? reply_of(handle)->connection.status() : 0;
}

// The count read into bytes[offset..], or -1 at the end of the output.
JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_attach_AttachNatives_read0(
    JNIEnv* env, jclass, jlong handle, jbyteArray bytes, jint offset, jint length, jint timeout_ms) {
    if (handle == 0 || bytes == nullptr || offset < 0 || length < 0 ||
        offset > env->GetArrayLength(bytes) - length) {
        throw_attach(env, J2SE::ATTACH_BAD_REQUEST, "no such connection or range");
        return -1;
    }
    NativeReply* reply = reply_of(handle);
    int wanted = length < static_cast<jint>(sizeof reply->buffer) ? length : static_cast<int>(sizeof reply->buffer);
    if (wanted == 0) return 0;
    J2SE::AttachError error;
    int count = reply->connection.read(reply->buffer, wanted, timeout_ms, &error);
    if (count < 0) {
        throw_attach(env, error.reason, error.message.c_str());
        return -1;
    }
    if (count == 0) return -1;
    env->SetByteArrayRegion(bytes, offset, count, reinterpret_cast<const jbyte*>(reply->buffer));
    return count;
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_attach_AttachNatives_close0(JNIEnv*, jclass, jlong handle) {
    if (handle != 0) reply_of(handle)->connection.close();
}

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_attach_AttachNatives_free0(JNIEnv*, jclass, jlong handle) {
    if (handle == 0) return;
    NativeReply* reply = reply_of(handle);
    reply->~NativeReply();
    wrap_free(alloc_site(SITE), reply);
}

}  // extern "C"
