// Starts and steers recorders. README.md shows how; docs/control-protocol.md is what is spoken.
export { Recording } from './lib/recording.js';
export { RecorderError } from './lib/error.js';
