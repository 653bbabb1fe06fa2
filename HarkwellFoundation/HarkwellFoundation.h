// The public API of HarkwellFoundation: device records and their events, the observers and the
// controller, the free property and listener functions, exclusive access, the host's model, and
// the seam a program uses to install a hardware service, with its queues, run loop and log. A
// service of one's own also needs the constants in Platform/AudioHardwareConstants.h and
// Platform/VideoHardwareConstants.h; the simulated services have a header of their own,
// Platform/Simulated/SimulatedHardwareServices.h. Nothing from an internal/ folder is included.
#pragma once

#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"
#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"
#include "HarkwellFoundation/Consumers/MediaDeviceConsumers.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
#include "HarkwellFoundation/Model/MediaDeviceConsumer.h"
#include "HarkwellFoundation/Model/MediaDeviceHogMode.h"
#include "HarkwellFoundation/Model/MediaEnumerations.h"
#include "HarkwellFoundation/Observer/MediaDeviceObserver.h"
#include "HarkwellFoundation/Platform/DispatchQueue.h"
#include "HarkwellFoundation/Platform/HardwareService.h"
#include "HarkwellFoundation/Platform/MainRunLoop.h"
#include "HarkwellFoundation/Platform/SystemLog.h"
#include "HarkwellFoundation/Video/VideoDeviceObserver.h"
#include "HarkwellFoundation/Video/VideoDeviceProperties.h"
#include "HarkwellFoundation/Video/VideoDevicePropertyListeners.h"
