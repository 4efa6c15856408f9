// Load and unload of the shared object by a JVM. The per-process state itself (own pid, the
// pid-to-file-name cache, the shared-file mapping cache, the monitoring-board collector) is set
// up by static initialisers when the library is loaded; JNI_OnUnload releases what a later load
// would create again. Nothing is released by exit handlers: JVM threads may still be inside a
// native call, or reading a board's buffer, while the process exits.
#include "controlAreaFile.h"
#include "monitoringBoardCollector.h"

#include <jni.h>

extern "C" JNIEXPORT jint JNICALL JNI_OnLoad(JavaVM*, void*) {
    J2SE::ControlAreaFileNames::create();
    MonitoringBoardCollector::the_impl();
    return JNI_VERSION_1_8;
}

extern "C" JNIEXPORT void JNICALL JNI_OnUnload(JavaVM* vm, void*) {
    JNIEnv* env = nullptr;
    if (vm->GetEnv(reinterpret_cast<void**>(&env), JNI_VERSION_1_8) != JNI_OK) env = nullptr;
    MonitoringBoardCollector::destroy_the_impl(env);
    J2SE::ControlAreaFileNames::release();
}
