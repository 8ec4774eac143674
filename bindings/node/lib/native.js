'use strict';
// Loads the addon, and says what is missing when it cannot be loaded.

const path = require('node:path');

// Debian's packages of what the addon needs from the system.
const packages = {
  'libcurl.so': 'libcurl4',
  'libcrypto.so': 'libssl3',
  'libssl.so': 'libssl3',
  'libstdc++.so': 'libstdc++6',
  'libgcc_s.so': 'libgcc-s1',
};

function explanation(message) {
  const library = /(lib[^\s/:]+\.so)[^\s:]*: cannot open shared object file/.exec(message)?.[1];
  if (library) {
    const name = packages[library];
    return `the system library ${library} is missing${name ? `; on Debian: apt-get install ${name}` : ''}`;
  }
  if (/version `[^']+' not found/.test(message)) {
    return 'a system library is older than Debian 12 has it';
  }
  return 'the addon cannot be loaded';
}

function load() {
  const platform = `${process.platform}-${process.arch}`;
  if (platform !== 'linux-x64') {
    throw new Error(`@velmora/vision has no binary for ${platform}, only for linux-x64`);
  }
  const file = path.join(__dirname, '..', 'prebuilds', platform, 'vision.node');
  // A node with an OpenSSL inside exports it, all that libcurl needs, and libcurl uses that
  // instead of the system's. RTLD_DEEPBIND would part them, and with them `environ` and
  // an allocator that is preloaded.
  try {
    return require(file);
  } catch (error) {
    throw new Error(`@velmora/vision: ${explanation(error.message)} (${error.message})`, { cause: error });
  }
}

module.exports = load();
