include $(sort $(wildcard $(BR2_EXTERNAL_VXUTILS_PATH)/package/*/*.mk))
