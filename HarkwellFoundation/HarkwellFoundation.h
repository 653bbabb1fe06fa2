// The whole public API of HarkwellFoundation.
#pragma once

#include "HarkwellFoundation/Audio/AudioDeviceObserver.h"
#include "HarkwellFoundation/Audio/AudioDeviceProperties.h"
#include "HarkwellFoundation/Audio/AudioDevicePropertyListeners.h"
#include "HarkwellFoundation/Controller/MediaDeviceController.h"
#include "HarkwellFoundation/Host/ComputerModelIdentifier.h"
#include "HarkwellFoundation/Model/MediaDevice.h"
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
