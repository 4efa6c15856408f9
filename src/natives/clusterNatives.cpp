// The JNI boundary of com.nox.jvm.inspector.cluster.natives.ProfilingClusterNatives. Each native
// converts its arguments, runs the query of clusterQueries.h and turns the result into a Java
// value: records become a new byte[], failures -1, false or null. Nothing here throws.
#include "clusterQueries.h"
#include "hostPass.h"

#include <jni.h>

// Capacity every record buffer starts with; records other than the start record fit into it.
static const size_t RECORD_CAPACITY = 1024;

// Copies the bytes written so far into a new Java array (null when the JVM has no room, with its
// OutOfMemoryError pending). A record cut short by a failed growth is returned as far as it got.
static jbyteArray to_java(JNIEnv* env, const ByteArrayOutputStream_CL& buffer) {
    jsize size = static_cast<jsize>(buffer.size());
    jbyteArray array = env->NewByteArray(size);
    if (array == nullptr) return nullptr;
    if (size > 0) env->SetByteArrayRegion(array, 0, size, reinterpret_cast<const jbyte*>(buffer.data()));
    return array;
}

static jbyteArray vm_record(JNIEnv* env, jint type, jint id, jint index, VmRecordKind kind) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    if (!query_vm_record(type, id, index, kind, buffer)) return nullptr;
    return to_java(env, buffer);
}

extern "C" {

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getClusterInfo0(JNIEnv* env, jclass) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    query_cluster_list(buffer);
    return to_java(env, buffer);
}

JNIEXPORT jint JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getUniqueId0(JNIEnv*, jclass, jint type, jint id,
                                                                                jint index) {
    return query_unique_id(type, id, index);
}

JNIEXPORT jint JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getMaxVms0(JNIEnv*, jclass, jint id) {
    return query_max_vms(id);
}

JNIEXPORT jboolean JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_isValidVm0(JNIEnv*, jclass, jint type, jint id,
                                                                              jint index) {
    return query_is_valid_vm(type, id, index) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getVmDebugInfo0(JNIEnv* env, jclass, jint type,
                                                                                   jint id, jint index) {
    return vm_record(env, type, id, index, VM_RECORD_DEBUG);
}

JNIEXPORT jboolean JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_startDebug0(JNIEnv*, jclass, jint type, jint id,
                                                                               jint index, jint suspend) {
    return request_start_debugging(type, id, index, suspend) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_stopDebug0(JNIEnv*, jclass, jint type, jint id,
                                                                              jint index) {
    return request_stop_debugging(type, id, index) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jboolean JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_exit0(JNIEnv*, jclass, jint type, jint id,
                                                                         jint index, jint exit_code) {
    return request_exit(type, id, index, exit_code) ? JNI_TRUE : JNI_FALSE;
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getVmStateInfo0(JNIEnv* env, jclass, jint type,
                                                                                   jint id, jint index) {
    return vm_record(env, type, id, index, VM_RECORD_STATE);
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getClusterDetailedInfo0(JNIEnv* env, jclass,
                                                                                           jint id) {
    ByteArrayOutputStream_CL buffer(RECORD_CAPACITY);
    if (!query_cluster_details(id, buffer)) return nullptr;
    return to_java(env, buffer);
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getVmStartInfo0(JNIEnv* env, jclass, jint type,
                                                                                   jint id, jint index) {
    return vm_record(env, type, id, index, VM_RECORD_START);
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getVmTimeInfo0(JNIEnv* env, jclass, jint type,
                                                                                  jint id, jint index) {
    return vm_record(env, type, id, index, VM_RECORD_TIME);
}

JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getVmMemoryInfo0(JNIEnv* env, jclass, jint type,
                                                                                    jint id, jint index) {
    return vm_record(env, type, id, index, VM_RECORD_MEMORY);
}

// Beside the per-cluster and per-VM natives: the whole host in one call (see hostPass.h).
JNIEXPORT jbyteArray JNICALL
Java_com_nox_jvm_inspector_cluster_natives_ProfilingClusterNatives_getHostPass0(JNIEnv* env, jclass) {
    ByteArrayOutputStream_CL buffer(64 * 1024);
    query_host_pass(buffer);
    return to_java(env, buffer);
}

}  // extern "C"
