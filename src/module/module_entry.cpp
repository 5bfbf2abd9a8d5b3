// Entry points of the module library: how a broker creates and closes it.
#include "middleware/broker.h"
#include "module/world_representation.h"

extern "C" {

int _createModule(std::shared_ptr<KQ::KQBroker> broker) {
  KQ::KQBrokerManager::setInstance(broker->getBrokerManager());
  KQ::KQBrokerManager::getInstance()->addBroker(broker);
  KQ::KQModule::createModule<KQ::KQWorldRepresentation>(broker, "KQWorldRepresentation");
  return 0;
}

int _closeModule(std::shared_ptr<KQ::KQBroker> /*broker*/) { return 0; }

}  // extern "C"
