/* Umbrella header of libtarvik: includes every public header. C programs get the
 * flat interface; C++ programs also get the client classes and the memory images. */
#ifndef TARVIK_TARVIK_H
#define TARVIK_TARVIK_H

#include "tarvik/TarvikVersion.h"
#include "tarvik/core/TarvikDeviceInfo.h"
#include "tarvik/core/TarvikResult.h"
#include "tarvik/dll/TarvikDLL.h"
#include "tarvik/dll/TarvikDllAD.h"
#include "tarvik/dll/TarvikDllAWire.h"
#include "tarvik/dll/TarvikDllCAN.h"
#include "tarvik/dll/TarvikDllDIO.h"
#include "tarvik/dll/TarvikDllFirmware.h"
#include "tarvik/dll/TarvikDllI2C.h"
#include "tarvik/dll/TarvikDllRenesas.h"
#include "tarvik/dll/TarvikDllSPI.h"
#include "tarvik/dll/TarvikDllTestSystem.h"
#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/clients/TarvikClientCAN.h"
#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientFirmware.h"
#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/clients/TarvikClientRenesas.h"
#include "tarvik/clients/TarvikClientSPI.h"
#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"
#include "tarvik/core/TarvikClient.h"
#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikPayload.h"
#include "tarvik/core/TarvikReply.h"
#include "tarvik/core/TarvikVersionText.h"
#include "tarvik/dll/DeviceManager.h"
#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/hexfile/TarvikImageCheck.h"
#include "tarvik/hexfile/TarvikImageOps.h"
#include "tarvik/runtime/MolFile.h"
#include "tarvik/runtime/MolIPConnection.h"
#include "tarvik/runtime/MolString.h"
#include "tarvik/runtime/MolSync.h"
#include "tarvik/runtime/MolTime.h"
#endif

#endif
