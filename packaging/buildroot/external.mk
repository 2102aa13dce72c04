include $(sort $(wildcard $(BR2_EXTERNAL_BUNDLE_SERVER_PATH)/package/*/*.mk))
