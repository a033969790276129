// Stands in for a Firebase Analytics release that predates SetConsent.
namespace firebase {
namespace analytics {

__attribute__((visibility("default"))) void SetAnalyticsCollectionEnabled(bool) {}

}  // namespace analytics
}  // namespace firebase
