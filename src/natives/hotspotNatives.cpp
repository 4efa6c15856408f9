// The JNI boundary of com.nox.jvm.inspector.hotspot.HotSpotNatives: converts arguments, runs a
// query of hotspotQueries.h and returns its record as a new byte[]; null when the VM is not
// there. Nothing here throws.
#include "hotspotQueries.h"

#include <jni.h>

namespace {

// A VM's file holds a few hundred counters: all of them fit in this without growing.
const size_t RECORD_CAPACITY = 16 * 1024;

jbyteArray to_java(JNIEnv* env, const ByteArrayOutputStream_CL& buffer) {
    jsize size = static_cast<jsize>(buffer.size());
    jbyteArray array = env->NewByteArray(size);
    if (array == nullptr) return nullptr;  // OutOfMemoryError pending
    if (size > 0) env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(buffer.data()));
    return array;
}

}  // namespace

extern "C" {

JNIEXPORT jbyteArray JNICALL Java_com_nox_jvm_inspector_hotspot_HotSpotNatives_listVms0(JNIEnv* env, jclass) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    query_hotspot_vms(J2SE::PerfDataHost(), buffer);
    return to_java(env, buffer);
}

JNIEXPORT jbyteArray JNICALL Java_com_nox_jvm_inspector_hotspot_HotSpotNatives_getHostPass0(JNIEnv* env, jclass) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    if (!query_hotspot_host_pass(J2SE::PerfDataHost(), buffer)) return nullptr;
    return to_java(env, buffer);
}

JNIEXPORT jbyteArray JNICALL Java_com_nox_jvm_inspector_hotspot_HotSpotNatives_getVm0(JNIEnv* env, jclass, jint pid) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    if (!query_hotspot_vm(J2SE::PerfDataHost(), pid, buffer)) return nullptr;
    return to_java(env, buffer);
}

JNIEXPORT jbyteArray JNICALL Java_com_nox_jvm_inspector_hotspot_HotSpotNatives_getCounters0(JNIEnv* env, jclass,
                                                                                           jint pid) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    if (!query_hotspot_counters(J2SE::PerfDataHost(), pid, buffer)) return nullptr;
    return to_java(env, buffer);
}

JNIEXPORT jbyteArray JNICALL Java_com_nox_jvm_inspector_hotspot_HotSpotNatives_getCounter0(JNIEnv* env, jclass,
                                                                                          jint pid, jstring name) {
    if (name == nullptr) return nullptr;
    const char* chars = env->GetStringUTFChars(name, nullptr);
    if (chars == nullptr) return nullptr;  // OutOfMemoryError pending
    ByteArrayOutputStream_CL buffer(1024);
    bool found = query_hotspot_counter(J2SE::PerfDataHost(), pid, chars, buffer);
    env->ReleaseStringUTFChars(name, chars);
    if (!found) return nullptr;
    return to_java(env, buffer);
}

}  // extern "C"
