#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionRequest.h"

#include "fennick/Helpers/Coordination/OVObjectHolder.h"
#include "fennick/Helpers/Receptionist/OVReceptionistStartSubscriptionRequest.h"
#include "fennick/Helpers/Receptionist/OVReceptionistStopSubscriptionRequest.h"
#include "fennick/Helpers/Receptionist/OVReceptionistSubscriptionInfo.h"
#include "fennick/Runtime/Collections/Array.h"
#include "fennick/Runtime/ObjectModel/ClassBuilder.h"
#include "fennick/Runtime/Collections/Collection.h"
#include "fennick/Runtime/Collections/Set.h"

namespace fennick {

namespace {

// Members of a collection in enumeration order (keys for dictionaries).
std::vector<Id> members(const Collection& collection) {
  if (auto* array = dynamic_cast<const Array*>(&collection)) return array->toVector();
  if (auto* set = dynamic_cast<const Set*>(&collection)) return set->allObjects()->toVector();
  if (auto* dictionary = dynamic_cast<const Dictionary*>(&collection))
    return dictionary->allKeys()->toVector();
  return {};
}

}  // namespace

FENNICK_DEFINE_CLASS(OVReceptionistSubscriptionRequest) {}

Ref<OVReceptionistSubscriptionRequest>
OVReceptionistSubscriptionRequest::requestWithObjectsInfo_keyPathesInfo_context(
    const Id& objectsInfo, const Id& keyPathesInfo, void* context) {
  auto request = make<OVReceptionistSubscriptionRequest>();
  request->setObjectsInfo(objectsInfo);
  request->setKeyPathesInfo(keyPathesInfo);
  request->setContext(context);
  return request;
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistSubscriptionRequest::initWithPrototype(
    const Ref<OVReceptionistSubscriptionRequest>& prototype) {
  auto request = make<OVReceptionistSubscriptionRequest>();
  if (prototype) request->copyFromPrototype(*prototype);
  return request;
}

void OVReceptionistSubscriptionRequest::setKeyPathesInfo(const Id& keyPathesInfo) {
  keyPathesInfo_ = keyPathesInfo ? keyPathesInfo->copy() : nullptr;
}

void OVReceptionistSubscriptionRequest::copyFromPrototype(const OVReceptionistSubscriptionRequest& prototype) {
  setKeyPathesInfo(prototype.keyPathesInfo_);
  objectsInfo_ = prototype.objectsInfo_;
  context_ = prototype.context_;
}

Ref<OVReceptionistSubscriptionRequest> OVReceptionistSubscriptionRequest::makeEmpty() const {
  return make<OVReceptionistSubscriptionRequest>();
}

Id OVReceptionistSubscriptionRequest::copy() const {
  auto request = makeEmpty();
  request->copyFromPrototype(*this);
  return request;
}

Ref<OVReceptionistStartSubscriptionRequest> OVReceptionistSubscriptionRequest::buildStartRequest() const {
  auto request = OVReceptionistStartSubscriptionRequest::request();
  request->copyFromPrototype(*this);
  return request;
}

Ref<OVReceptionistStopSubscriptionRequest> OVReceptionistSubscriptionRequest::buildStopRequest() const {
  auto request = OVReceptionistStopSubscriptionRequest::request();
  request->copyFromPrototype(*this);
  return request;
}

void OVReceptionistSubscriptionRequest::performForReceptionist(OVReceptionist& receptionist) {
  if (auto path = String::dynamicCastObject(keyPathesInfo_)) {
    performForReceptionist_forKeyPath(receptionist, path);
  } else if (auto paths = Collection::dynamicCastObject(keyPathesInfo_)) {
    for (const Id& path : members(*paths))
      performForReceptionist_forKeyPath(receptionist, String::dynamicCastObject(path));
  } else {
    performForReceptionist_forKeyPath(receptionist, nullptr);
  }
}

void OVReceptionistSubscriptionRequest::performForReceptionist_forKeyPath(OVReceptionist& receptionist,
                                                                         const Ref<String>& keyPath) {
  if (auto objects = Collection::dynamicCastObject(objectsInfo_)) {
    for (const Id& object : members(*objects))
      performForReceptionist_forKeyPath_object(receptionist, keyPath, object);
  } else {
    performForReceptionist_forKeyPath_object(receptionist, keyPath, objectsInfo_);
  }
}

void OVReceptionistSubscriptionRequest::performForReceptionist_forKeyPath_object(OVReceptionist&,
                                                                                const Ref<String>&,
                                                                                const Id&) {}

Ref<OVReceptionistSubscriptionInfo>
OVReceptionistSubscriptionRequest::buildSubscriptionInfoForReceptionist_forKeyPath_object(
    OVReceptionist&, const Ref<String>& keyPath, const Id& object) {
  auto info = OVReceptionistSubscriptionInfo::info();
  info->setObservedObjectHolder(object ? OVObjectHolder::weakHolderForObject(object) : nullptr);
  info->setKeyPath(keyPath);
  info->setContext(context_);
  return info;
}

}  // namespace fennick
