# A script runtime that connects, sends and ends at once.
#   leaves.rb ADDRESS PORT SIZE
require "socket"

Socket.do_not_reverse_lookup = true
socket = TCPSocket.new(ARGV[0], ARGV[1].to_i)
socket.write("nothing back\n" + "half a connection is open\n" * (ARGV[2].to_i / 26))
puts "sent"
