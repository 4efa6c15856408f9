// The JNI boundary of com.nox.jvm.inspector.natives.InspectorNatives: process questions and the
// monitoring boards. Process questions never throw; the board natives pass on the exceptions
// of the Java board objects and refuse to run before initLocalMonitorBoards0.
#include "fileSocket.h"
#include "monitoringBoardCollector.h"
#include "sharedUtils.h"

#include <jni.h>

static void throw_illegal_state(JNIEnv* env, const char* message) {
    jclass type = env->FindClass("java/lang/IllegalStateException");
    if (type != nullptr) env->ThrowNew(type, message);
}

extern "C" {

JNIEXPORT void JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_initLocalMonitorBoards0(JNIEnv* env, jclass,
                                                                                                  jclass board_class) {
    if (board_class == nullptr) {
        throw_illegal_state(env, "no monitoring-board class given");
        return;
    }
    // The objects of boards made for another class cannot be handed out as this one's: those
    // boards are told that they are gone and given up, and come back with objects of the new class.
    MonitoringBoardCollector* collector = MonitoringBoardCollector::the_impl();
    if (collector != nullptr && MonitoringBoardProxy::is_initialised() &&
        !env->IsSameObject(MonitoringBoardProxy::board_class(), board_class)) {
        collector->release(env);
    }
    MonitoringBoardProxy::init(env, board_class);  // a missing method leaves its error pending
}

JNIEXPORT jobjectArray JNICALL
Java_com_nox_jvm_inspector_natives_InspectorNatives_getListOfVisibleMonitorBoards0(JNIEnv* env, jclass) {
    MonitoringBoardCollector* collector = MonitoringBoardCollector::the_impl();
    if (!MonitoringBoardProxy::is_initialised() || collector == nullptr) {
        throw_illegal_state(env, "initLocalMonitorBoards0 must be called first");
        return nullptr;
    }
    return collector->get_board_objects(env);
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_isProcessAlive0(JNIEnv*, jclass, jint pid) {
    return J2SE::SharedUtils::process_exists(pid);
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_getOwnProcessId0(JNIEnv*, jclass) {
    return J2SE::SharedUtils::get_own_pid();
}

JNIEXPORT jstring JNICALL
Java_com_nox_jvm_inspector_natives_InspectorNatives_getProfilingServerIdentifier0(JNIEnv* env, jclass, jint pid) {
    J2SE::cstring name = J2SE::get_profiling_server_string(pid);
    if (name.is_empty()) return nullptr;
    J2SE::cstring identifier = J2SE::FileSocket::create_identifier(name);
    return env->NewStringUTF(identifier.c_str());
}

JNIEXPORT jint JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_getCpuCount0(JNIEnv*, jclass) {
    return J2SE::SharedUtils::get_num_cpu();
}

JNIEXPORT jlong JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_getCreationTimeOfProcess0(JNIEnv*, jclass,
                                                                                                     jint pid) {
    return static_cast<jlong>(J2SE::SharedUtils::creationtime_of_process(pid));
}

JNIEXPORT jshort JNICALL
Java_com_nox_jvm_inspector_natives_InspectorNatives_isFileSocketServerAttachable0(JNIEnv*, jclass, jint pid) {
    J2SE::cstring name = J2SE::get_profiling_server_string(pid);
    if (name.is_empty()) return -1;
    return static_cast<jshort>(J2SE::FileSocket::is_filesocket_server_attachable(name));
}

JNIEXPORT jboolean JNICALL Java_com_nox_jvm_inspector_natives_InspectorNatives_couldElevate0(JNIEnv*, jclass) {
    return J2SE::SharedUtils::could_elevate() ? JNI_TRUE : JNI_FALSE;
}

}  // extern "C"
