// Umbrella header of the vok framework library.
#ifndef VOK_VOK_H
#define VOK_VOK_H

#include <vok/ArgvMaker.h>
#include <vok/BladeLoader.h>
#include <vok/BladeStopWatcher.h>
#include <vok/Daemon.h>
#include <vok/DiagBusService.h>
#include <vok/DiagnosticRegister.h>
#include <vok/Event.h>
#include <vok/InteractiveTestManager.h>
#include <vok/JsonArrayUtils.h>
#include <vok/JsonObjectFindResult.h>
#include <vok/JsonObjectUtils.h>
#include <vok/JsonToken.h>
#include <vok/KelvraSvcUtils.h>
#include <vok/Logger.h>
#include <vok/MessageMoverFramework.h>
#include <vok/MessageMoverInterface.h>
#include <vok/Metrics.h>
#include <vok/MmCommandPort.h>
#include <vok/MmConnectionPort.h>
#include <vok/MmMessageHandle.h>
#include <vok/Mutex.h>
#include <vok/PortEventInterface.h>
#include <vok/RdAlarm.h>
#include <vok/RdAsyncBridge.h>
#include <vok/RdDescriptorMonitor.h>
#include <vok/RdKvCall.h>
#include <vok/RdKvService.h>
#include <vok/RdPortMonitor.h>
#include <vok/RdTimer.h>
#include <vok/RuntimeDispatcher.h>
#include <vok/SimpleAsyncInterface.h>
#include <vok/Thread.h>
#include <vok/Trace.h>
#include <vok/Version.h>
#include <vok/VokError.h>
#include <vok/VokKvClient.h>
#include <vok/VokShell.h>
#include <vok/VokTypes.h>

#endif  // VOK_VOK_H
