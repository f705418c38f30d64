# Number of boxes over which a family's test cases are spread; families that are not named run in one.
