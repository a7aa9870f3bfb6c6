<?php
// SYNTHETIC DEMO SAMPLE for ardent-agent. Not a working web shell.
exit;
// the kind of decoder chain obfuscated shells use: str_rot13(base64_decode($x))
