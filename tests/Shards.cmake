# Number of boxes over which a family's test cases are spread; families that are not named run in one.
set(vxutils_shards_configd 12)
set(vxutils_shards_wwanmd 12)
set(vxutils_shards_ping 4)
set(vxutils_shards_wanlink 3)
set(vxutils_shards_demo 4)
set(vxutils_shards_outside 4)
set(vxutils_shards_csemaphore_hostile 4)
set(vxutils_shards_install 4)
