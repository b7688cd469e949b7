#ifndef GSTNOX_MSHELL_H
#define GSTNOX_MSHELL_H

struct CommandStruct;

/// The backend's commands of the debug shell, group "uva". Each answers 0, or -1602 to parameters
/// that are missing or wrong.

/// Registers them. Once, at start-up.
void uva_add_mshell_commands();

/// "m_gst_debug_set_threshold": GStreamer's debug levels, as in the environment variable GST_DEBUG,
/// which is set too.
int m_gst_debug_set_threshold(CommandStruct* command);

/// "m_gst_debug_set_color_mode": one of on, auto, off, disable, unix.
int m_gst_debug_set_color_mode(CommandStruct* command);

/// "m_mse": every backend of the process, with its media sources and what is queued in them.
int m_mse(CommandStruct* command);

/// "m_graph": writes what a backend's pipeline consists of, in Graphviz's language, to a file.
int m_graph(CommandStruct* command);

#endif
